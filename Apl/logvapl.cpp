// logvapl.cpp - dumps of arrays.
#include "Apl/logvapl.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iterator>

#include "Apl/vaget.h"

namespace {

constexpr UI4 kTextRoom = 2048;
constexpr UI4 kValuesInLine = 10;
constexpr SI4 kDepthStep = 2;  // from an array to its elements
constexpr size_t kLineRoom = 8192;

constexpr PCH10 pcType[] = {
    "No initialization",  "Boolean 1 bit",    "Integer 1 byte",   "Integer 2 bytes",
    "Integer 4 bytes",    "Floating-point",   "Complex",          "APV integer 4 bytes",
    "APV floating-point", "Character 1 byte", "Character 2 byte", "Character 4 byte",
    "Nested array",
    "Heterogenous array",  // Deliberate: log files are searched for it.
    "Boxed array",        "Integer 8 bytes",  "Invalid type"};
constexpr UI2 kInvalidType = std::size(pcType) - 1;

PCH10 TypeName(UI2 type) { return pcType[std::min(type, kInvalidType)]; }

void StartLine(FILE* log, SI4 depth) {
  fputc('\n', log);
  for (SI4 i = 0; i < depth; ++i) fputs(" |", log);
}

// The parts below stay out of the walk's frame, which stands on the stack once for each level.

__attribute__((noinline)) void PrintNumbers(FILE* log, const VARRAY* array, SI4 depth) {
  const UI4 n = VAElems(array);
  for (UI4 i = 0; i < n; ++i) {
    if (i % kValuesInLine == 0) {
      StartLine(log, depth);
      fprintf(log, "%8ld  ", static_cast<long>(i));
    }
    F8 value = 0;
    if (VAGetF8(array, i, &value) == 0) fprintf(log, "%g ", value);
  }
}

__attribute__((noinline)) void PrintNumber(FILE* log, const VARRAY* array, UI4 index, SI4 depth) {
  F8 value = 0;
  if (VAGetF8(array, index, &value) != 0) return;
  StartLine(log, depth);
  fprintf(log, "%g", value);
}

__attribute__((noinline)) void PrintText(FILE* log, const VARRAY* array, UI4 index, SI4 depth) {
  CH1 text[kTextRoom];
  StartLine(log, depth);
  // Deliberate: every failure is told as this one.
  if (VAGetCH1(array, index, text, sizeof text, VACHAR) != 0) {
    fprintf(log, "String larger than %u bytes", kTextRoom);
  } else {
    fputs(text, log);
  }
}

void PrintHet(FILE* log, const VARRAY* array, SI4 depth) {
  const UI4 n = VAElems(array);
  for (UI4 i = 0; i < n; ++i) {
    const VATYPES type = VAHetType(array, i);
    StartLine(log, depth + 1);
    fprintf(log, ">Item no. %7d Elem type %s", static_cast<SI4>(i), TypeName(type));
    switch (type) {
      case VAC1:
        PrintText(log, array, i, depth);
        break;
      case VABit:
      case VAI1:
      case VAI2:
      case VAI4:
      case VAF8:
        PrintNumber(log, array, i, depth);
        break;
      case VAPntr:
        PrintAA(log, VAOwned(array, i), depth + kDepthStep);
        break;
      default:
        break;
    }
  }
}

void PrintNested(FILE* log, const VARRAY* array, SI4 depth) {
  const UI4 n = VAElems(array);
  for (UI4 i = 0; i < n; ++i) {
    StartLine(log, depth + 1);
    fprintf(log, ">Item no. %d", static_cast<SI4>(i));
    PrintAA(log, VAOwned(array, i), depth + kDepthStep);
  }
}

}  // namespace

void LOGPrintAA(const VARRAY* array) {
  const int saved = errno;
  if (FILE* const log = LOGOpen()) {
    // A buffer that holds the longest line: what other threads log does not come in between.
    CH1* const buffer = static_cast<CH1*>(malloc(kLineRoom));
    if (buffer) setvbuf(log, buffer, _IOLBF, kLineRoom);
    CH1 when[32] = {};
    const time_t now = time(nullptr);
    if (!ctime_r(&now, when)) when[0] = 0;
    fprintf(log, "%.24s APL Array:\n", when);
    PrintAA(log, array, 0);
    fputc('\n', log);
    LOGClose(log);
    free(buffer);
  }
  errno = saved;
}

void DescribeAA(FILE* log, const VARRAY* array, SI4 depth) {
  StartLine(log, depth);
  if (!array) {
    fputs("Null pointer", log);
    return;
  }
  fprintf(log, ">Array %8lu %-25s %4u %5lu", static_cast<unsigned long>(VALength(array)),
          TypeName(VAType(array)), static_cast<unsigned>(VARank(array)),
          static_cast<unsigned long>(VARefCount(array)));
  if (VARank(array) == 0) return;
  StartLine(log, depth);
  for (UI2 axis = 0; axis < VARank(array); ++axis) {
    fprintf(log, " %7lu", static_cast<unsigned long>(VAShape(array)[axis]));
  }
}

void PrintAA(FILE* log, const VARRAY* array, SI4 depth) {
  if (depth > kDepthStep * static_cast<SI4>(kMaxDepth)) return;
  if (!array) {
    StartLine(log, depth);
    fputs("NULL Pointer", log);
    return;
  }
  DescribeAA(log, array, depth);
  switch (VAType(array)) {
    case VABit:
    case VAI1:
    case VAI2:
    case VAI4:
    case VAF8:
    case VAApvI4:
    case VAApvF8:
      PrintNumbers(log, array, depth);
      break;
    case VAC1:
      PrintText(log, array, 0, depth);
      break;
    case VAPntr:
      PrintNested(log, array, depth);
      break;
    case VAHet:
      PrintHet(log, array, depth);
      break;
    default:
      StartLine(log, depth);
      fputs("Unknown apl type\n", log);
  }
}

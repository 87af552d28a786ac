// error.cpp - the table of codes, and the search in it.

#include "kyrno/base/error.h"

#include <cstring>

namespace {

struct ERRORTEXT {
  int no;
  PCH10 define;
  PCH10 text;
};

#define ERROR_ROW(no, define, text) {no, #define, text},
constexpr ERRORTEXT errors[] = {ERROR_ROWS(ERROR_ROW){0, "END", "NOMOREERRORS"}};
#undef ERROR_ROW

static_assert(sizeof errors / sizeof errors[0] == 125);

}  // namespace

int strerror_own(SI4 no, PCH1 text, size_t textlen, PCH1 define, size_t definelen) {
  for (const ERRORTEXT* row = errors; row->no > 0; ++row) {
    if (row->no != no) continue;
    strncpy(text, row->text, textlen);
    strncpy(define, row->define, definelen);
    return 0;
  }
  return 1;
}

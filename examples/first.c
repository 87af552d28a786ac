/* first.c - a server, a client and one command between them, all in this process.
 *
 *   cc -I. -o first examples/first.c && ./first build/release/kyrno32_64.so
 */
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "include/kyrno.h"

static __typeof__(Call)* call;
static __typeof__(FreeUsedTessorResult)* giveBack;

/* Appends a vector to a Z block of less than 256 bytes. */
static void Append(uint8_t* z, int nested, int type, size_t n, const void* data, size_t bytes) {
  uint8_t* const array = z + z[3];
  const size_t words = 4 + (nested ? n : (bytes + 7) / 8);
  array[0] = (uint8_t)words;
  array[8] = nested ? 0x17 : 0x1F;
  array[9] = (uint8_t)type;
  array[16] = (uint8_t)n;
  memcpy(array + 24, data, bytes);
  z[3] = (uint8_t)(z[3] + (nested ? 24 : 8 * (words - 1)));
}

/* Runs a command whose arguments are texts ('t') and numbers ('n'). The caller owns the result. */
static uint8_t* Run(const char* command, uint32_t** left, const char* kinds, ...) {
  uint32_t block[64] = {0x08000000, 0xA4000000}; /* 8 and 0xA4, big-endian */
  uint32_t* right = block;
  va_list args;
  va_start(args, kinds);
  if (kinds[1]) Append((uint8_t*)block, 1, 6, strlen(kinds), "", 0);
  for (; *kinds; ++kinds) {
    const char* const text = *kinds == 't' ? va_arg(args, const char*) : NULL;
    const int32_t number = text ? 0 : va_arg(args, int);
    if (text) Append((uint8_t*)block, 0, 7, strlen(text), text, strlen(text));
    if (!text) Append((uint8_t*)block, 0, 4, 1, &number, 4);
  }
  va_end(args);
  const int32_t status = call("first", command, &right, left);
  const int32_t code = status ? status : (int)right[(right[4] & 0xFF) == 0x17 ? 12 : 8];
  printf("%-9s %d\n", command, code);
  if (code) exit(1);
  return (uint8_t*)right;
}

int main(int argc, char** argv) {
  void* const library = dlopen(argc > 1 ? argv[1] : "./kyrno32_64.so", RTLD_NOW);
  if (!library) return puts(dlerror()), 1;
  call = (__typeof__(call))dlsym(library, "Call");
  giveBack = (__typeof__(giveBack))dlsym(library, "FreeUsedTessorResult");
  if (((__typeof__(Init)*)dlsym(library, "Init"))("first", "")) return 1;

  /* A port of 0 takes a free one. It is the last item of "LocalAddr", so it ends the block. */
  giveBack(Run("ASrv", NULL, "tttt", "S", "127.0.0.1", "0", "command"));
  uint8_t* const address = Run("AGetProp", NULL, "tt", "S", "LocalAddr");
  const uint8_t* const port = address + address[2] * 256 + address[3] - 8;
  char digits[8];
  snprintf(digits, sizeof digits, "%d", port[0] + port[1] * 256);
  giveBack(address);
  giveBack(Run("AClt", NULL, "tttt", "C", "127.0.0.1", digits, "command"));

  /* The client asks. The server hears "Connect" and "Receive", and answers with what it heard. */
  uint32_t question[64] = {0x08000000, 0xA4000000};
  uint32_t* left = question;
  Append((uint8_t*)question, 0, 7, 6, "Hello!", 6);
  giveBack(Run("ASendZ", &left, "t", "C.ask"));
  giveBack(Run("AWaitZ", &left, "tn", "S", 5000));
  giveBack(left);
  giveBack(Run("AWaitZ", &left, "tn", "S", 5000));
  giveBack(Run("ARespondZ", &left, "tn", "S.CON00000000.ask", 1));
  giveBack(left);

  giveBack(Run("AWaitZ", &left, "tn", "C", 5000));
  const uint8_t* const answer = (const uint8_t*)left;
  for (int i = 0; i < answer[3]; ++i) printf("%02x%s", answer[i], i % 8 == 7 ? "\n" : " ");
  printf("%.6s\n", (const char*)answer + 32);
  giveBack(left);
  giveBack(Run("AClose", NULL, "t", "."));
  return dlclose(library);
}

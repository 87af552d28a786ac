// qlntypes.h - the scalar names that every interface of the library uses.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>

using CH1 = char;
using SI1 = signed char;
using SI2 = int16_t;
using SI4 = int32_t;
using UI1 = unsigned char;
using UI2 = uint16_t;
using UI4 = uint32_t;
using UI8 = uint64_t;
using F8 = double;
using BOOL = bool;
using PVOID = void*;

using PCH1 = CH1*;
using PCH10 = const CH1*;  ///< text that the callee leaves as it is
using PSZ = const CH1*;    ///< the same
using PSI2 = SI2*;
using PSI4 = SI4*;
using PUI1 = UI1*;
using PUI2 = UI2*;
using PUI4 = UI4*;
using PF8 = F8*;

using QLNoff_t = int64_t;
using TTHREADID = pthread_t;
using SOCKET = int;
using SOCKERR = SI4;
using SOCKPORT = UI2;

/// Architecture bits of the interpreter's Z header.
inline constexpr UI4 ARCH_LITTLE = 0x80;
inline constexpr UI4 ARCH_DEXTEND = 0x40;
inline constexpr UI4 ARCH_64BIT = 0x20;
inline constexpr UI4 ARCH_DALIGN = 0x10;
inline constexpr UI4 ARCH_MACH = 0x08;
inline constexpr UI4 ARCH_UNICODE = 0x04;
inline constexpr UI4 ARCH_IALIGN = 0x02;
inline constexpr UI4 ARCH_SPARE = 0x01;
inline constexpr UI4 ZHEADER = ARCH_LITTLE | ARCH_64BIT;

#!/usr/bin/env python3
"""compare.py PROGRAM - decimal conversions against Python's own arithmetic.

PROGRAM (values.cpp) gets boundary values and many random ones; each of its answers must be the one
that is worked out here, with both encodings taken apart anew.
"""
import random
import struct
import subprocess
import sys
from decimal import Context, Decimal, ROUND_CEILING, ROUND_DOWN, ROUND_FLOOR
from fractions import Fraction

COUNT = 100_000  # random values of each kind
SEED = 20240607
BIAS, TOP = 6176, 10**34
DECIMAL128 = Context(prec=34, Emin=-6143, Emax=6144, clamp=1, traps=[])
EXACT = Context(prec=800, Emin=-9999, Emax=9999, traps=[])
QUIET, SIGNALLING, INFINITE = "NaN", "SNaN", "Inf"


def declet_digits(d):
    """Three digits by the standard's table, its bits named p to y from the high one down."""
    p, q, r, s, t, u, v, w, x, y = (d >> i & 1 for i in range(9, -1, -1))
    a, b, c = 4 * p + 2 * q + r, 4 * s + 2 * t + u, 4 * w + 2 * x + y
    if v:
        a, b, c = {
            (0, 0): (a, b, 8 + y),
            (0, 1): (a, 8 + u, 4 * s + 2 * t + y),
            (1, 0): (8 + r, b, 4 * p + 2 * q + y),
            (1, 1): {
                (0, 0): (8 + r, 8 + u, 4 * p + 2 * q + y),
                (0, 1): (8 + r, 4 * p + 2 * q + u, 8 + y),
                (1, 0): (a, 8 + u, 8 + y),
                (1, 1): (8 + r, 8 + u, 8 + y),
            }[s, t],
        }[w, x]
    return 100 * a + 10 * b + c


DIGITS = [declet_digits(d) for d in range(1024)]
DECLETS = {}
for declet, three in enumerate(DIGITS):
    DECLETS.setdefault(three, declet)


def unpack(bits, packed):
    """(sign, digits or payload, exponent or what it is instead)"""
    sign, combination = bits >> 127, bits >> 122 & 31
    trailing = bits & (1 << 110) - 1
    if packed:
        trailing = sum(DIGITS[trailing >> 10 * i & 1023] * 1000**i for i in range(11))
    if combination == 30:
        return sign, 0, INFINITE
    if combination == 31:
        payload = trailing if trailing < 10**33 else 0
        return sign, payload, SIGNALLING if bits >> 121 & 1 else QUIET
    large = combination >> 3 == 3
    if packed:
        first = 8 + (combination & 1) if large else combination & 7
        high = combination >> 1 & 3 if large else combination >> 3
        return sign, first * 10**33 + trailing, (high << 12 | bits >> 110 & 4095) - BIAS
    digits = bits & (1 << 113) - 1
    return (
        sign,
        0 if large or digits >= TOP else digits,
        (bits >> (111 if large else 113) & 16383) - BIAS,
    )


def pack(sign, digits, exponent, packed):
    special = {INFINITE: 60, QUIET: 62, SIGNALLING: 63}.get(exponent)
    biased = 0 if special else exponent + BIAS
    first, trailing = divmod(digits, 10**33)
    if packed:
        trailing = sum(DECLETS[trailing // 1000**i % 1000] << 10 * i for i in range(11))
    if special:
        return sign << 127 | special << 121 | trailing
    if not packed:
        return sign << 127 | biased << 113 | digits
    high = biased >> 12
    combination = 24 | high << 1 | first & 1 if first > 7 else high << 3 | first
    return sign << 127 | combination << 122 | (biased & 4095) << 110 | trailing


def f8_bits(value):
    return struct.unpack(">Q", struct.pack(">d", value))[0]


def f8(bits):
    return struct.unpack(">d", struct.pack(">Q", bits))[0]


def to_f8(sign, digits, exponent):
    if exponent in (QUIET, SIGNALLING):
        return sign << 63 | 0x7FF8 << 48 | (digits if digits < 1 << 51 else 0)
    text = "Inf" if exponent == INFINITE else f"{digits}E{exponent}"
    bits = f8_bits(float(text))
    if exponent != INFINITE and -400 < exponent < 270:
        assert f8(bits) == float(Fraction(digits) * Fraction(10) ** exponent)
    return sign << 63 | bits


def to_si4(sign, digits, exponent):
    if not isinstance(exponent, int) or digits and exponent > 10:
        return -(2**31)
    value = Decimal((sign, tuple(map(int, str(digits))), exponent))
    whole = int(value.to_integral_value(ROUND_DOWN))
    return whole if -(2**31) <= whole < 2**31 else -(2**31)


def from_f8(bits):
    value = f8(bits)
    if value != value:
        return bits >> 63, bits & (1 << 51) - 1, QUIET
    sign, digits, exponent = DECIMAL128.create_decimal(Decimal(value)).as_tuple()
    if exponent == "F":
        return sign, 0, INFINITE
    return sign, int("".join(map(str, digits))), exponent


def expected(line):
    kind, value = line.split()
    if kind in ("bid", "dpd"):
        number = sign, digits, exponent = unpack(int(value, 16), kind == "dpd")
        text = "+-"[sign] + (f"{digits}E{exponent:+d}" if isinstance(exponent, int) else exponent)
        other = pack(*number, kind == "bid")
        return f"{text} {to_f8(*number):016x} {to_si4(*number)} {other:032x}"
    if kind == "f8":
        number = from_f8(int(value, 16))
    else:
        number = int(value) < 0, abs(int(value)), 0
    return f"{pack(*number, False):032x} {pack(*number, True):032x}"


def boundary_doubles():
    edges = [0, 1, 2, (1 << 52) - 1, 1 << 52, 0x7FE << 52, (0x7FF << 52) - 1, 0x7FF << 52]
    edges += [0x7FF << 52 | payload for payload in (1, 1 << 51, (1 << 51) - 1, (1 << 52) - 1)]
    edges += [e << 52 | f for e in range(2047) for f in (0, 1, (1 << 52) - 1)]
    edges += [f8_bits(float(f"{n}E{e}")) for n in (1, 3, 5, 9) for e in range(-324, 309)]
    edges += [f8_bits(float(5**i << j)) for i in range(23) for j in range(0, 900, 9)]
    return [sign << 63 | bits for sign in (0, 1) for bits in edges]


def boundary_numbers():
    digits = {0, TOP // 2, 1 << 53, 1 << 64, 1 << 112}
    digits |= {10**i + d for i in range(35) for d in (-1, 0, 1) if 10**i + d < TOP}
    digits |= {n + d for n in (2**31, 10 * 2**31, 10**9 * 2**31) for d in range(-11, 12)}
    exponents = [-6176, -6175, -6143, -400, 400, 6110, 6111]
    exponents += [*range(-362, -305), *range(-40, 13), *range(270, 312)]
    for sign in (0, 1):
        yield from ((sign, n, e) for n in digits for e in exponents)
        for kind in (INFINITE, QUIET, SIGNALLING):
            yield from ((sign, 10**i - 1 if kind != INFINITE else 0, kind) for i in range(34))


def halfway(bits):
    """34 digits beside or on the middle between a double and the next one."""
    middle = EXACT.divide(EXACT.add(Decimal(f8(bits)), Decimal(f8(bits + 1))), Decimal(2))
    for rounding in (ROUND_FLOOR, ROUND_CEILING):
        number = Context(prec=34, Emin=-6143, Emax=6144, rounding=rounding).plus(middle)
        sign, digits, exponent = number.as_tuple()
        yield sign, int("".join(map(str, digits))), exponent


def random_number():
    digits = random.randrange(10 ** random.randint(1, 34))
    exponents = random.choice([(-6176, 6111), (-370, 310), (-36, 10)])
    return random.randrange(2), digits, random.randint(*exponents)


def questions():
    def decimals(number):
        yield from (f"{kind} {pack(*number, kind == 'dpd'):032x}" for kind in ("bid", "dpd"))

    for number in boundary_numbers():
        yield from decimals(number)
    for _ in range(COUNT):
        yield from decimals(random_number())
    for _ in range(COUNT // 10):
        for number in halfway(random.randrange(0x7FE << 52)):
            yield from decimals(number)
    # Any bits at all, many of them infinities, NaNs and too many digits; then every declet.
    for _ in range(COUNT):
        bits = random.getrandbits(128) | random.choice([0, 0, 3 << 125, 15 << 123])
        yield from (f"{kind} {bits:032x}" for kind in ("bid", "dpd"))
    for least in (31 << 122 | 10**33, BIAS << 113 | TOP):  # payload and digits that are too many
        yield from (f"bid {least + d:032x}" for d in (-1, 0, 1))
    yield from (f"dpd {15 << 123 | 1 << 122 | d << 10 * i:032x}" for d in range(1024) for i in (0, 10))
    yield from (f"dpd {BIAS << 110 | d:032x}" for d in range(1024))

    for bits in boundary_doubles():
        yield f"f8 {bits:016x}"
    yield from (f"f8 {random.getrandbits(64):016x}" for _ in range(COUNT))
    yield from (f"f8 {f8_bits(random.randint(-10**9, 10**9) / 1000):016x}" for _ in range(COUNT))
    edges = {0, 1, -1, 9, 10, 999, 1000, 2**31 - 1, -(2**31), -(2**31) + 1}
    for value in [*edges, *(random.randint(-(2**31), 2**31 - 1) for _ in range(COUNT))]:
        yield f"si4 {value}"


def main():
    random.seed(SEED)
    asked = list(questions())
    lines = "\n".join(asked)
    run = subprocess.run(sys.argv[1:], input=lines, stdout=subprocess.PIPE, text=True, check=True)
    answers = run.stdout.splitlines()
    wrong = abs(len(asked) - len(answers))
    for line, answer in zip(asked, answers):
        right = expected(line)
        if answer.strip() != right:
            wrong += 1
            print(f"{line}\n  is    {answer}\n  wants {right}")
            if wrong > 20:
                break
    print(f"{len(asked)} values, {wrong} wrong")
    return wrong > 0


sys.exit(main())

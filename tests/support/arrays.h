// arrays.h - short ways to make arrays and to read them back in unit tests of the array model.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Apl/vaget.h"
#include "Apl/vapl.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"

/// A vector of the type, or a scalar, with the elements' bytes as they stand.
template <typename T>
VAHOLD MakeVector(VATYPES type, const std::vector<T>& elements) {
  const UI4 n = static_cast<UI4>(elements.size() * sizeof(T) * 8 / VAsize[type]);
  VAHOLD a(VANew(type, 1, &n));
  if (n > 0) memcpy(VAData(a.Get()), elements.data(), elements.size() * sizeof(T));
  return a;
}

template <typename T>
VAHOLD MakeScalar(VATYPES type, T value) {
  VAHOLD a(VANew(type, 0, nullptr));
  memcpy(VAData(a.Get()), &value, sizeof value);
  return a;
}

inline VAHOLD Int(SI4 value) { return MakeScalar(VAI4, value); }

inline VAHOLD MakeText(const std::string& text) {
  return MakeVector<CH1>(VAC1, std::vector<CH1>(text.begin(), text.end()));
}

template <typename... HOLDS>
VAHOLD MakeNested(HOLDS... children) {
  const UI4 n = sizeof...(children);
  VAHOLD a(VANew(VAPntr, 1, &n));
  UI4 at = 0;
  (VASetOwned(a.Get(), at++, children.Release()), ...);
  return a;
}

/// An integer, a double, a text, a character and a bit.
inline VAHOLD MakeHet() {
  const UI4 n = 5;
  VAHOLD a(VANew(VAHet, 1, &n));
  EXPECT_EQ(VASetSI4(a.Get(), 0, -7), 0);
  EXPECT_EQ(VASetF8(a.Get(), 1, 2.5), 0);
  EXPECT_EQ(VASetCH1(a.Get(), 2, "text", 4, VABIN), 0);
  VAHetStore(a.Get(), 3, VAC1, "c", 1);
  VAHetStore(a.Get(), 4, VABit, "\x80", 1);
  return a;
}

/// The element as text with its code in front when it cannot be had.
inline std::string TextOf(const VARRAY* array, UI4 index = 0, SI2 type = VACHAR) {
  CH1* text = nullptr;
  const SI4 code = VAGetCH1m(array, index, &text, type);
  const std::string result = code == 0 ? text : "error " + std::to_string(code);
  free(text);
  return result;
}

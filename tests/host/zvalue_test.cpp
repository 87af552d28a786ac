// zvalue_test.cpp - block images that are none.
#include "host/zvalue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using host::ZError;
using host::ZValue;

std::string Image(const ZValue& value) {
  const std::vector<std::uint32_t> z = value.Encode();
  return std::string(reinterpret_cast<const char*>(z.data()), z.size() * sizeof z[0]);
}

/// The bytes under the length that they have, in memory of exactly that size, so that a sanitizer
/// sees a read behind it.
ZValue Decode(const std::string& image) {
  std::vector<char> exact(image.begin(), image.end());
  const std::uint32_t length = __builtin_bswap32(static_cast<std::uint32_t>(exact.size()));
  if (exact.size() >= sizeof length) std::memcpy(exact.data(), &length, sizeof length);
  return ZValue::Decode(exact.data(), exact.size());
}

TEST(ZValue, RefusesABlockCutAtAnyLength) {
  const std::string whole =
      Image(ZValue::List({"text", ZValue::List({2.5, ""}), ZValue::List({})}));
  for (std::size_t n = 0; n < whole.size(); ++n)
    EXPECT_THROW(Decode(whole.substr(0, n)), ZError) << n;
}

TEST(ZValue, BoundsTheDepthBothWays) {
  ZValue deep = 1;
  for (int level = 1; level < ZValue::kMaxDepth; ++level) deep = ZValue::List({deep});
  const std::string image = Image(deep);
  EXPECT_EQ(Decode(image), deep);
  EXPECT_THROW(ZValue::List({deep}).Encode(), ZError);
  EXPECT_THROW(Decode(image.substr(0, 8) + image.substr(8, 24) + image.substr(8)), ZError);
}

}  // namespace

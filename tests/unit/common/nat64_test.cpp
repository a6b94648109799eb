#include "vpn/Common/IP/Nat64.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

in6_addr six(const char* text) {
  in6_addr address{};
  EXPECT_EQ(inet_pton(AF_INET6, text, &address), 1) << text;
  return address;
}

}  // namespace

TEST(Nat64, FindsAPrefixOfEachLengthAndStandsForAnAddress) {
  in_addr documented{};
  ASSERT_EQ(inet_pton(AF_INET, "192.0.2.33", &documented), 1);
  // RFC 6052, section 2.4.
  for (const auto& [made, address] :
       {std::pair{"2001:db8:c000:aa::", "2001:db8:c000:221::"},
        {"2001:db8:1c0:0:aa::", "2001:db8:1c0:2:21::"},
        {"2001:db8:122:c000:0:aa00::", "2001:db8:122:c000:2:2100::"},
        {"2001:db8:122:3c0:0:ab::", "2001:db8:122:3c0:0:221::"},
        {"2001:db8:122:344:c0:0:aa00::", "2001:db8:122:344:c0:2:2100::"},
        {"2001:db8:122:344::c000:aa", "2001:db8:122:344::c000:221"},
        {"64:ff9b::c000:ab", "64:ff9b::c000:221"}}) {
    const std::optional<Nat64> prefix = Nat64::of(six(made));
    ASSERT_TRUE(prefix) << made;
    const in6_addr found = prefix->addressOf(documented);
    const in6_addr expected = six(address);
    EXPECT_TRUE(IN6_ARE_ADDR_EQUAL(&found, &expected)) << made;
  }
  EXPECT_FALSE(Nat64::of(six("2001:db8::1")));
  EXPECT_FALSE(Nat64::of(six("::")));
}

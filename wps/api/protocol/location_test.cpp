#include "wps/api/protocol/location.h"

#include <gtest/gtest.h>

#include <cstring>

namespace WPS {
namespace API {
namespace {

StreetAddress sampleAddress() {
  StreetAddress sa;
  sa.streetNumber = "100";
  sa.addressLine = {"Main Street", "Suite 2"};
  sa.city = "Boston";
  sa.postalCode = "02108";
  sa.county = "Suffolk";
  sa.province = "";
  sa.region = "New England";
  sa.state = {"Massachusetts", "MA"};
  sa.country = {"United States", "US"};
  return sa;
}

TEST(ValueTypes, AuthenticationFromPublicRecord) {
  EXPECT_EQ(SimpleAuthentication(nullptr), SimpleAuthentication("", ""));
  WPS_SimpleAuthentication partial = {"user", nullptr};
  EXPECT_EQ(SimpleAuthentication(&partial), SimpleAuthentication("user", ""));
  WPS_SimpleAuthentication full = {"user", "realm"};
  EXPECT_EQ(SimpleAuthentication(&full), SimpleAuthentication("user", "realm"));
}

TEST(ValueTypes, LocationConvertsToAnIndependentPublicRecord) {
  Location loc;
  loc.latitude = 1.5;
  loc.longitude = -2.5;
  loc.hpe = 30;
  loc.nap = 4;
  loc.speed = 12;
  loc.bearing = 270;
  loc.streetAddress = sampleAddress();

  WPS_Location* rec = static_cast<WPS_Location*>(loc);
  // The record must not share storage with the value it came from.
  loc.streetAddress.city = "Changed";
  loc.streetAddress.addressLine.clear();

  EXPECT_EQ(rec->latitude, 1.5);
  EXPECT_EQ(rec->longitude, -2.5);
  EXPECT_EQ(rec->hpe, 30);
  EXPECT_EQ(rec->nap, 4u);
  EXPECT_EQ(rec->speed, 12);
  EXPECT_EQ(rec->bearing, 270);
  ASSERT_NE(rec->street_address, nullptr);
  const WPS_StreetAddress& sa = *rec->street_address;
  EXPECT_STREQ(sa.street_number, "100");
  ASSERT_NE(sa.address_line, nullptr);
  EXPECT_STREQ(sa.address_line[0], "Main Street");
  EXPECT_STREQ(sa.address_line[1], "Suite 2");
  EXPECT_EQ(sa.address_line[2], nullptr);
  EXPECT_STREQ(sa.city, "Boston");
  EXPECT_STREQ(sa.postal_code, "02108");
  EXPECT_STREQ(sa.county, "Suffolk");
  EXPECT_STREQ(sa.province, "");
  EXPECT_STREQ(sa.region, "New England");
  EXPECT_STREQ(sa.state.name, "Massachusetts");
  EXPECT_STREQ(sa.state.code, "MA");
  EXPECT_STREQ(sa.country.name, "United States");
  EXPECT_STREQ(sa.country.code, "US");
  Location::free_location(rec);
  Location::free_location(nullptr);
}

TEST(ValueTypes, EmptyAddressGivesNullStreetAddress) {
  Location loc;
  WPS_Location* rec = static_cast<WPS_Location*>(loc);
  EXPECT_EQ(rec->street_address, nullptr);
  EXPECT_EQ(rec->nap, 0u);
  Location::free_location(rec);

  IPLocation ip;
  ip.ip = "192.0.2.1";
  ip.latitude = 3;
  ip.longitude = 4;
  WPS_IPLocation* iprec = static_cast<WPS_IPLocation*>(ip);
  EXPECT_STREQ(iprec->ip, "192.0.2.1");
  EXPECT_EQ(iprec->latitude, 3);
  EXPECT_EQ(iprec->longitude, 4);
  EXPECT_EQ(iprec->street_address, nullptr);
  IPLocation::free_ip_location(iprec);

  ip.streetAddress.country = {"France", "FR"};
  iprec = static_cast<WPS_IPLocation*>(ip);
  ASSERT_NE(iprec->street_address, nullptr);
  EXPECT_STREQ(iprec->street_address->country.code, "FR");
  EXPECT_STREQ(iprec->street_address->city, "");
  EXPECT_EQ(iprec->street_address->address_line[0], nullptr);
  IPLocation::free_ip_location(iprec);
}

TEST(ValueTypes, CopiesCarryEveryField) {
  Location a;
  a.latitude = 1;
  a.time = SPI::Time(1700000000, 5);
  a.streetAddress = sampleAddress();
  Location b = a;
  EXPECT_EQ(a, b);
  b.streetAddress.state.code = "XX";
  EXPECT_NE(a, b);
  EXPECT_FALSE(sampleAddress().empty());
  EXPECT_TRUE(StreetAddress().empty());

  char* copy = mbscpy(std::string("a\0b", 3));
  EXPECT_EQ(std::memcmp(copy, "a\0b", 4), 0);
  std::free(copy);
}

}  // namespace
}  // namespace API
}  // namespace WPS

#include "wps/api/protocol/location.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace WPS {
namespace API {

namespace {

// calloc that fails like operator new, so that the conversions never hand out
// a half-filled record.
template <typename T>
T* allocate(size_t count = 1) {
  void* p = std::calloc(count, sizeof(T));
  if (p == nullptr) throw std::bad_alloc();
  return static_cast<T*>(p);
}

void freeNameCode(WPS_NameCode& nc) {
  std::free(nc.name);
  std::free(nc.code);
}

}  // namespace

char* mbscpy(const std::string& text) {
  char* copy = allocate<char>(text.size() + 1);
  std::memcpy(copy, text.data(), text.size());
  return copy;
}

SimpleAuthentication::SimpleAuthentication(const WPS_SimpleAuthentication* authentication) {
  if (authentication == nullptr) return;
  if (authentication->username != nullptr) username = authentication->username;
  if (authentication->realm != nullptr) realm = authentication->realm;
}

bool StreetAddress::empty() const {
  return streetNumber.empty() && addressLine.empty() && city.empty() && postalCode.empty() &&
         county.empty() && province.empty() && region.empty() && state.name.empty() &&
         state.code.empty() && country.name.empty() && country.code.empty();
}

StreetAddress::operator WPS_StreetAddress*() const {
  auto* sa = allocate<WPS_StreetAddress>();
  sa->street_number = mbscpy(streetNumber);
  sa->address_line = allocate<char*>(addressLine.size() + 1);
  for (size_t i = 0; i < addressLine.size(); ++i) sa->address_line[i] = mbscpy(addressLine[i]);
  sa->city = mbscpy(city);
  sa->postal_code = mbscpy(postalCode);
  sa->county = mbscpy(county);
  sa->province = mbscpy(province);
  sa->region = mbscpy(region);
  sa->state.name = mbscpy(state.name);
  sa->state.code = mbscpy(state.code);
  sa->country.name = mbscpy(country.name);
  sa->country.code = mbscpy(country.code);
  return sa;
}

void StreetAddress::free_street_address(WPS_StreetAddress* sa) {
  if (sa == nullptr) return;
  std::free(sa->street_number);
  if (sa->address_line != nullptr) {
    for (char** line = sa->address_line; *line != nullptr; ++line) std::free(*line);
    std::free(sa->address_line);
  }
  std::free(sa->city);
  std::free(sa->postal_code);
  std::free(sa->county);
  std::free(sa->province);
  std::free(sa->region);
  freeNameCode(sa->state);
  freeNameCode(sa->country);
  std::free(sa);
}

Location::operator WPS_Location*() const {
  auto* l = allocate<WPS_Location>();
  l->latitude = latitude;
  l->longitude = longitude;
  l->hpe = hpe;
  l->nap = nap < 0 ? 0u : static_cast<unsigned>(nap);
  l->speed = speed;
  l->bearing = bearing;
  l->source = ipBased      ? WPS_SOURCE_IP_ADDRESS
              : learned    ? WPS_SOURCE_LEARNED
              : fromServer ? WPS_SOURCE_SERVER
                           : WPS_SOURCE_WIFI;
  l->street_address = streetAddress.empty() ? nullptr : static_cast<WPS_StreetAddress*>(streetAddress);
  return l;
}

void Location::free_location(WPS_Location* location) {
  if (location == nullptr) return;
  StreetAddress::free_street_address(location->street_address);
  std::free(location);
}

IPLocation::operator WPS_IPLocation*() const {
  auto* l = allocate<WPS_IPLocation>();
  l->ip = mbscpy(ip);
  l->latitude = latitude;
  l->longitude = longitude;
  l->street_address = streetAddress.empty() ? nullptr : static_cast<WPS_StreetAddress*>(streetAddress);
  return l;
}

void IPLocation::free_ip_location(WPS_IPLocation* location) {
  if (location == nullptr) return;
  std::free(location->ip);
  StreetAddress::free_street_address(location->street_address);
  std::free(location);
}

}  // namespace API
}  // namespace WPS

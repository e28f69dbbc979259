// Value types of the positioning library: credentials, street addresses,
// locations and tile descriptions, with their conversions to the public
// records of wpsapi.h.
//
// Thread safety: plain values. The conversion operators allocate new records
// that belong to the caller; release them with the matching static free_
// function (the public WPS_free_ functions call those).
#pragma once

#include <list>
#include <string>
#include <vector>

#include "wps/api/wpsapi.h"
#include "wps/spi/time.h"

namespace WPS {
namespace API {

// A newly allocated (malloc), zero-terminated copy of `text`, in UTF-8 (the
// texts the library holds already are). Never
// null; aborts like operator new when memory is exhausted. Release with free().
[[nodiscard]] char* mbscpy(const std::string& text);

// A credential pair, written into requests verbatim.
struct SimpleAuthentication {
  std::string username;
  std::string realm;

  SimpleAuthentication() = default;
  SimpleAuthentication(std::string user, std::string r) : username(std::move(user)), realm(std::move(r)) {}
  // From the public record; a null record or field gives the empty text.
  explicit SimpleAuthentication(const WPS_SimpleAuthentication* authentication);

  friend bool operator==(const SimpleAuthentication&, const SimpleAuthentication&) = default;
};

// A name with its code (a state, a country). The code is empty or two
// characters when it comes from a response.
struct NameCode {
  std::string name;
  std::string code;

  friend bool operator==(const NameCode&, const NameCode&) = default;
};

struct StreetAddress {
  std::string streetNumber;
  std::vector<std::string> addressLine;  // in document order
  std::string city;
  std::string postalCode;
  std::string county;
  std::string province;
  std::string region;
  NameCode state;
  NameCode country;

  // True when no field holds anything.
  [[nodiscard]] bool empty() const;

  // A new public record holding copies of every field; never null. Release it
  // with free_street_address.
  explicit operator WPS_StreetAddress*() const;
  // Releases a record made by the conversion above, and its texts; null is
  // ignored.
  static void free_street_address(WPS_StreetAddress* address);

  friend bool operator==(const StreetAddress&, const StreetAddress&) = default;
};

struct Location {
  double latitude = 0.0;   // degrees
  double longitude = 0.0;  // degrees
  double hpe = 0.0;        // metres: horizontal positioning error
  int nap = 0;             // number of access points used
  double speed = 0.0;      // km/h
  double bearing = 0.0;    // degrees
  SPI::Time time;          // when the location was determined; unset when unknown
  bool ipBased = false;    // found from the caller's IP address, not from Wi-Fi
  bool learned = false;    // found on the device from learned access points only
  bool fromServer = false; // placed by the positioning server for this request
  StreetAddress streetAddress;

  // A new public record; never null. Its street address is null when this
  // location's address is empty. Release it with free_location.
  explicit operator WPS_Location*() const;
  // Releases a record made by the conversion above; null is ignored.
  static void free_location(WPS_Location* location);

  friend bool operator==(const Location&, const Location&) = default;
};

struct IPLocation {
  std::string ip;
  double latitude = 0.0;
  double longitude = 0.0;
  StreetAddress streetAddress;

  // A new public record; never null. Its street address is null when this
  // location's address is empty. Release it with free_ip_location.
  explicit operator WPS_IPLocation*() const;
  static void free_ip_location(WPS_IPLocation* location);

  friend bool operator==(const IPLocation&, const IPLocation&) = default;
};

// One tile offered by a tiling response.
struct TileInfo {
  std::string id;       // the tile's identifier
  std::string version;  // the tile's version, as sent
  std::string url;      // where to download it: the response's url + "/tiling"

  friend bool operator==(const TileInfo&, const TileInfo&) = default;
};

using TileInfoList = std::list<TileInfo>;

}  // namespace API
}  // namespace WPS

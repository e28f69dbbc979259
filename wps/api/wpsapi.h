/*
 * Public interface of the Wi-Fi positioning library.
 *
 * The library is entered only through the WPS_ functions below, which take and
 * return the plain records declared here. It is usable from C and C++.
 *
 * Threads: every function may be called from any thread at any time. Each one
 * holds one process-wide lock for its whole duration, so calls are serialised;
 * a long call (a location request scans for up to five seconds) delays the
 * others.
 *
 * Ownership: records handed out by the library (WPS_Location, WPS_IPLocation
 * and the street address they point to) belong to the caller, who releases
 * them with the matching WPS_free_ function. Records passed in (authentication,
 * texts, paths) are borrowed for the duration of the call only; the library
 * copies what it keeps.
 *
 * Errors: every function returns a WPS_ReturnCode (0 = success). Nothing is
 * thrown across this interface.
 */
#ifndef WPS_API_WPSAPI_H
#define WPS_API_WPSAPI_H

#ifdef __cplusplus
extern "C" {
#endif

/* The server URL the library starts with (WPS_set_server_url changes it):
 * the community database's geolocation JSON API. */
#define WPS_DEFAULT_SERVER_URL "https://api.beacondb.net/v1/geolocate"

/* Result of every public function. */
typedef enum {
  /* Success. */
  WPS_OK = 0,
  /* No location was found from the scan: the initial result of a location
   * request, kept when no determination succeeded. */
  WPS_ERROR_NO_LOCATION_FROM_SCAN = 3,
  /* The server refused the credentials (HTTP 401 or 403), or the user name or
   * realm is empty. */
  WPS_ERROR_UNAUTHORIZED = 4,
  /* The server could not be used (it cannot be reached, or any HTTP failure
   * other than the ones above and below). */
  WPS_ERROR_SERVER_UNAVAILABLE = 5,
  /* The location cannot be determined: no local result and no usable server
   * answer, or an unreadable response. */
  WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED = 6,
  /* The proxy refused the credentials (HTTP 407). */
  WPS_ERROR_PROXY_UNAUTHORIZED = 7,
  /* Any other failure. */
  WPS_ERROR = 99
} WPS_ReturnCode;

/* A user's credentials. A null record or a null field is taken as the empty
 * text. Names are sent to the server verbatim: use only letters, digits, dots
 * and hyphens. */
typedef struct {
  const char* username;
  const char* realm;
} WPS_SimpleAuthentication;

/* How much of a street address the server is asked to return with a
 * location. */
typedef enum {
  WPS_NO_STREET_ADDRESS_LOOKUP = 0,
  WPS_LIMITED_STREET_ADDRESS_LOOKUP = 1,
  WPS_FULL_STREET_ADDRESS_LOOKUP = 2
} WPS_StreetAddressLookup;

/* A name with its code, used for a state and a country. `code` is either the
 * empty text or exactly two characters. Both texts are never null in a record
 * handed out by the library. */
typedef struct {
  char* name;
  char* code;
} WPS_NameCode;

/* A street address. Every text is a zero-terminated UTF-8 text (whatever the
 * process's locale), never null (empty when unknown). `address_line`
 * points to an array of texts ending with a null pointer, in the server's
 * order. */
typedef struct {
  char* street_number;
  char** address_line;
  char* city;
  char* postal_code;
  char* county;
  char* province;
  char* region;
  WPS_NameCode state;
  WPS_NameCode country;
} WPS_StreetAddress;

/* What a location was found from. */
typedef enum {
  /* The access points of a Wi-Fi scan, placed on the device from the tiles. */
  WPS_SOURCE_WIFI = 0,
  /* The caller's IP address: a server that knew none of the access points
   * answered where the address is, usually no better than a city or a
   * country. */
  WPS_SOURCE_IP_ADDRESS = 1,
  /* Learned access points only (see WPS_set_learned_places): found on the
   * device from what positioning servers taught it earlier, with no request.
   * The hpe is never smaller than the accuracy of those servers' fixes. */
  WPS_SOURCE_LEARNED = 2,
  /* The access points of a Wi-Fi scan, placed by the positioning server (in
   * answer to this request, or a recent answer for nearly the same access
   * points kept in the cache). */
  WPS_SOURCE_SERVER = 3
} WPS_LocationSource;

/* A location, released with WPS_free_location. */
typedef struct {
  double latitude;  /* degrees */
  double longitude; /* degrees */
  double hpe;       /* metres: horizontal positioning error */
  unsigned int nap; /* number of access points used */
  double speed;     /* km/h */
  double bearing;   /* degrees */
  WPS_StreetAddress* street_address; /* null when none */
  WPS_LocationSource source;
} WPS_Location;

/* A location derived from the caller's IP address, released with
 * WPS_free_ip_location. */
typedef struct {
  char* ip;
  double latitude;
  double longitude;
  WPS_StreetAddress* street_address; /* may be null */
} WPS_IPLocation;

/* Answers of the callbacks. */
typedef enum {
  WPS_STOP = 0,
  WPS_CONTINUE = 1
} WPS_Continuation;

/* Called during a tile download with the number of the tile being fetched and
 * the number of tiles in the session. Returning WPS_STOP ends the session. Runs
 * on the download's own thread. */
typedef WPS_Continuation (*WPS_TilingCallback)(void* arg,
                                               unsigned tile_number,
                                               unsigned tile_total);

/* A finished scan, as seen by a WPS_ScanCallback. Opaque: the library's own
 * scan loop hands its internal lists through it. */
typedef struct WPS_ScanResult WPS_ScanResult;

/* Called by WPS_periodic_scan after each scan with the scan's result code and
 * the scan (valid only during the call). Returning WPS_STOP ends the loop. */
typedef WPS_Continuation (*WPS_ScanCallback)(void* context,
                                             WPS_ReturnCode result,
                                             const WPS_ScanResult* scan);

/* Called by WPS_periodic_location with each location report; `location` is
 * valid only during the call (null when `code` is not WPS_OK). Returning
 * WPS_STOP ends the reports. */
typedef WPS_Continuation (*WPS_LocationCallback)(void* arg,
                                                 WPS_ReturnCode code,
                                                 const WPS_Location* location);

/* One location request: scans Wi-Fi every 500 ms for up to ten periods, tries
 * the downloaded tiles and then the server. On WPS_OK, and on
 * WPS_ERROR_NO_LOCATION_FROM_SCAN, a newly allocated location is stored in
 * *location (zeroed when none was found); on any other code nothing is handed
 * out and *location is set to null.
 *
 * The access points of all scans so far are accumulated. After each scan:
 *  - when no street address is asked for, the tiles are tried; a fix from
 *    more than two access points ends the request;
 *  - otherwise, with a server URL set, the server is asked once the access
 *    points of the last fix plus the new ones since it number at least three,
 *    or, before any fix, once any access point was seen and more than 2999 ms
 *    of scanning have passed. The library's cache of recent answers is
 *    consulted first: a scan much like a recent one is answered from it
 *    without a request. A fix from more than two access points ends the
 *    request; a weaker fix is kept while scanning goes on for a better one.
 *    Once the server has refused the credentials it is not asked again.
 *    A geolocation JSON API server is asked again within the request only
 *    when new access points were seen since it was last asked; it is sent
 *    only the access points that may be looked up (not hidden, no name
 *    ending in "_nomap", no locally administered MAC, stronger than
 *    -90 dBm), and not at all when fewer than two remain. Its answer may be
 *    a position of the IP address (source WPS_SOURCE_IP_ADDRESS).
 * A failure after a fix does not replace it. A location found (from the tiles,
 * the server or the cache) is remembered in the cache with the scan.
 *
 * Returns WPS_ERROR at once when `location` is null, and when there is no
 * Wi-Fi adapter or it cannot be opened or scan (WPS_SCAN_FILE names a file of
 * scans to use instead of the card). */
WPS_ReturnCode WPS_location(const WPS_SimpleAuthentication* authentication,
                            WPS_StreetAddressLookup street_address_lookup,
                            WPS_Location** location);

/* The server's location for the caller's IP address. On WPS_OK a newly
 * allocated record is stored in *location. With the geolocation JSON API the
 * record's `ip` is the empty text and WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED
 * means the server does not know where the address is. */
WPS_ReturnCode WPS_ip_location(const WPS_SimpleAuthentication* authentication,
                               WPS_StreetAddressLookup street_address_lookup,
                               WPS_IPLocation** location);

/* Registers `new_authentication` with the server, using the registering
 * account `authentication`. */
WPS_ReturnCode WPS_register_user(const WPS_SimpleAuthentication* authentication,
                                 const WPS_SimpleAuthentication* new_authentication);

/* Configures the download of tiles for on-device positioning into `dirpath`.
 * When `max_data_size_per_session` exceeds `max_data_size_total` the total is
 * used for both. `callback` may be null. */
WPS_ReturnCode WPS_tiling(const char* dirpath,
                          unsigned long max_data_size_per_session,
                          unsigned long max_data_size_total,
                          WPS_TilingCallback callback,
                          void* param);

/* Directories holding tile files, as an array of texts ending with a null
 * pointer. */
WPS_ReturnCode WPS_set_local_files_path(const char** paths);

/* Learned places: from now on each position from a positioning server (either
 * protocol) with an accuracy of 250 m or better teaches the library where the
 * scanned access points are (not hidden ones, not "_nomap" networks, not
 * locally administered MACs; an IP-based position teaches nothing), kept in
 * tile files in `dirpath` (created when missing) bound to `realm`: the
 * installation's own secret, which keys every hash the files hold in place of
 * MACs. Location requests then read them with the downloaded tiles, so a
 * return to a known place is located on the device (source
 * WPS_SOURCE_LEARNED) and no request is made. An access point seen again
 * within 1 km keeps the running mean of its fixes; one seen more than 1 km
 * away is dropped and ignored for a week; at most 20,000 are kept, the least
 * recently seen forgotten first. Files that cannot be read are set aside and
 * learning starts again. A null or empty `dirpath` stops learning and using
 * them (the files stay). Returns WPS_ERROR for an empty `realm`. */
WPS_ReturnCode WPS_set_learned_places(const char* dirpath, const char* realm);

/* Deletes everything learned; the number of access points forgotten goes to
 * *forgotten (may be null). WPS_ERROR when no learned places are set. */
WPS_ReturnCode WPS_forget_learned_places(unsigned long* forgotten);

/* The number of learned access points and of places (groups of them within
 * about a kilometre); either pointer may be null. WPS_ERROR when no learned
 * places are set. */
WPS_ReturnCode WPS_learned_places_count(unsigned long* access_points, unsigned long* places);

/* Enables scan collection into `dirpath`, using at most `size_kb` kilobytes. */
WPS_ReturnCode WPS_set_tier2_area(const char* dirpath, unsigned size_kb);

/* The server URL; null restores the default (WPS_DEFAULT_SERVER_URL), the
 * empty text disables all
 * network use. A URL whose path ends in "/v1/geolocate" selects the
 * geolocation JSON API (see WPS_server_protocol); any other URL the XML
 * protocol, whose request paths are appended to it. */
WPS_ReturnCode WPS_set_server_url(const char* url);

/* The protocol the configured server speaks. */
typedef enum {
  /* No server URL is set: no network use. */
  WPS_PROTOCOL_NONE = 0,
  /* The XML protocol: location, IP location, registration and tiling. */
  WPS_PROTOCOL_XML = 1,
  /* The geolocation JSON API: location and IP location only. Credentials
   * are not sent, WPS_register_user sends nothing and answers WPS_OK, and
   * no tiles are ever requested. After a refusal that asks the client to
   * wait (403, 429, 5xx, time-out, refused connection) no request goes to
   * the server for a minute, doubling up to an hour or as its Retry-After
   * says; such requests fail at once with WPS_ERROR_SERVER_UNAVAILABLE. */
  WPS_PROTOCOL_GEOLOCATION_API = 2
} WPS_ServerProtocol;
WPS_ServerProtocol WPS_server_protocol(void);

/* The User-Agent of every request; null restores the default
 * "Zonara/VERSION (PRETTY_NAME of /etc/os-release)", the empty text sends
 * none. */
WPS_ReturnCode WPS_set_user_agent(const char* ua);

/* The HTTP proxy for every request; a null or empty `address` clears it. A null
 * user or password is taken as the empty text; with both empty no proxy
 * credentials are sent. */
WPS_ReturnCode WPS_set_proxy(const char* address,
                             int port,
                             const char* user,
                             const char* password);

/* Scans every `period` milliseconds, `iterations` times (0 = until the callback
 * answers WPS_STOP), calling `callback` after each scan on the calling thread.
 * The callback gets WPS_OK and the scan; when a scan failed and the adapter
 * had to be reset, it gets WPS_ERROR and an empty scan for that period. The
 * library lock is held throughout, so the callback must not call WPS_
 * functions. Returns WPS_OK when the loop ended normally, WPS_ERROR when
 * `callback` is null or there is no working Wi-Fi adapter. */
WPS_ReturnCode WPS_periodic_scan(unsigned long period,
                                 unsigned iterations,
                                 WPS_ScanCallback callback,
                                 void* context);

/* Repeated location reports: as WPS_location, repeated every `period`
 * milliseconds `iterations` times (0 = until the callback answers WPS_STOP).
 *
 * Each repetition is one complete location request (up to five seconds of
 * scanning); its result goes to `callback` with the location on WPS_OK and a
 * null location with any other code. The next request starts `period`
 * milliseconds after the start of the previous one, or at once when that one
 * took longer. The library lock is held during each request only, not during
 * the callback or the wait, so the callback may call WPS_ functions and other
 * threads are served between reports.
 *
 * Returns WPS_OK when the callback stopped the reports or all iterations were
 * made; WPS_ERROR for a null callback; when a request could not scan at all
 * (no Wi-Fi adapter), its code, after reporting it. */
WPS_ReturnCode WPS_periodic_location(const WPS_SimpleAuthentication* authentication,
                                     WPS_StreetAddressLookup street_address_lookup,
                                     unsigned long period,
                                     unsigned iterations,
                                     WPS_LocationCallback callback,
                                     void* arg);

/* Release a record handed out by the library, with its street address. A null
 * pointer is ignored. */
void WPS_free_location(WPS_Location* location);
void WPS_free_ip_location(WPS_IPLocation* location);

/* The library's clock, which the embedding program shares so that one clock
 * keeps the time of both (one sped up for demonstrations, one simulated for
 * tests). Every function here may be called from any thread, also while
 * other WPS_ functions run; none takes the library's lock. */

/* The wall time in milliseconds since 1970-01-01 UTC. */
long long WPS_clock_wall_ms(void);
/* Milliseconds since an arbitrary origin, never going back: what timers and
 * delays count on. */
long long WPS_clock_monotonic_ms(void);
/* Blocks the calling thread for `milliseconds` of the clock's time (nothing
 * for 0 or less). */
void WPS_clock_sleep_ms(long long milliseconds);
/* 1 when the clock's time moves only when a test moves it (timers then wait
 * for the listener below instead of a real time-out), else 0. */
int WPS_clock_is_simulated(void);
/* The real milliseconds that pass while `milliseconds` of the clock's time
 * pass: what a timer waits in real time. Never 0 for a positive argument. */
long long WPS_clock_real_ms(long long milliseconds);
/* Makes the clock run `factor` times as fast as real time, counted from now:
 * every time read, sleep, scan period and retry delay of the library and of
 * the program reading the clock here is shortened alike (network time-outs
 * are not). 1 restores the real clock. WPS_ERROR for a factor below 1 or not
 * finite. Call before other WPS_ functions, not while one runs. */
WPS_ReturnCode WPS_set_time_scale(double factor);
/* Names a function called whenever the clock changes (another one installed)
 * or a simulated clock's time moves, on the thread that moved it, with
 * `context`; null: none. The program wakes its timers there. */
void WPS_set_clock_listener(void (*moved)(void* context), void* context);

/* Names the embedding program's preferences domain: the library reads its
 * logging configuration (the text LOG4CPP_CONFIGURATION, a log4cpp properties
 * file) from that domain's property list first, then from its own domain
 * "example.telluro.wps", then from the environment variable
 * LOG4CPP_CONFIGURATION. Without a call the program's file name is the domain.
 * Call before any other WPS_ function: logging is configured once, on first
 * use. WPS_ERROR for a null domain. */
WPS_ReturnCode WPS_set_preferences_domain(const char* domain);

#ifdef __cplusplus
}
#endif

#endif /* WPS_API_WPSAPI_H */

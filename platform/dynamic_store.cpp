#include "platform/dynamic_store.h"

#include <arpa/inet.h>
#include <glib-unix.h>
#include <glib.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "platform/run_loop.h"
#include "platform/system_log.h"

namespace zonara {
namespace {

struct SocketDeleter {
  void operator()(nl_sock* s) const { nl_socket_free(s); }
};
struct CacheDeleter {
  void operator()(nl_cache* c) const { nl_cache_free(c); }
};
using SocketPtr = std::unique_ptr<nl_sock, SocketDeleter>;
using CachePtr = std::unique_ptr<nl_cache, CacheDeleter>;

// One full reading of the interfaces: keys in the store's order.
struct Snapshot {
  std::vector<std::string> interfaces;
  std::vector<std::pair<std::string, PrefValue::Dictionary>> entries;
};

bool isWireless(const std::string& sysfsRoot, const std::string& name) {
  const std::string dir = sysfsRoot + "/class/net/" + name;
  struct stat st;
  if (stat((dir + "/phy80211").c_str(), &st) == 0) return true;
  std::ifstream uevent(dir + "/uevent");
  std::string line;
  while (std::getline(uevent, line)) {
    if (line == "DEVTYPE=wlan") return true;
  }
  return false;
}

}  // namespace

std::string DynamicStore::interfaceEntityKey(const std::string& interface, const std::string& entity) {
  return "State:/Network/Interface/" + interface + "/" + entity;
}

struct NetlinkDynamicStore::Impl {
  std::string sysfsRoot;
  RunLoop* runLoop = nullptr;
  ChangeCallback callback;
  SocketPtr events;  // multicast notifications
  SocketPtr query;   // full reads
  GSource* source = nullptr;
  Snapshot current;
  std::set<std::string> keys;
  std::vector<std::regex> patterns;

  ~Impl() {
    if (source) {
      g_source_destroy(source);
      g_source_unref(source);
    }
  }

  // Reads every link and address. False (and the previous snapshot kept) on
  // a netlink failure.
  bool read(Snapshot& out, int* error) {
    nl_cache* raw = nullptr;
    int rc = rtnl_link_alloc_cache(query.get(), AF_UNSPEC, &raw);
    if (rc < 0) {
      *error = rc;
      return false;
    }
    CachePtr links(raw);
    raw = nullptr;
    rc = rtnl_addr_alloc_cache(query.get(), &raw);
    if (rc < 0) {
      *error = rc;
      return false;
    }
    CachePtr addrs(raw);

    std::map<int, std::vector<std::string>> addresses;
    for (nl_object* o = nl_cache_get_first(addrs.get()); o; o = nl_cache_get_next(o)) {
      auto* addr = reinterpret_cast<rtnl_addr*>(o);
      if (rtnl_addr_get_family(addr) != AF_INET) continue;
      nl_addr* local = rtnl_addr_get_local(addr);
      if (!local || nl_addr_get_len(local) != 4) continue;
      char text[INET_ADDRSTRLEN];
      if (inet_ntop(AF_INET, nl_addr_get_binary_addr(local), text, sizeof text))
        addresses[rtnl_addr_get_ifindex(addr)].push_back(text);
    }

    std::map<int, rtnl_link*> byIndex;
    for (nl_object* o = nl_cache_get_first(links.get()); o; o = nl_cache_get_next(o)) {
      auto* link = reinterpret_cast<rtnl_link*>(o);
      byIndex[rtnl_link_get_ifindex(link)] = link;
    }
    out = Snapshot{};
    for (const auto& [index, link] : byIndex) {
      const unsigned flags = rtnl_link_get_flags(link);
      if (flags & IFF_LOOPBACK) continue;
      const char* name = rtnl_link_get_name(link);
      if (!name) continue;
      out.interfaces.push_back(name);
      if (isWireless(sysfsRoot, name)) {
        const bool up = flags & IFF_UP;
        const bool operUp = rtnl_link_get_operstate(link) == IF_OPER_UP;
        out.entries.push_back({interfaceEntityKey(name, "AirPort"),
                               {{"Power Status", PrefValue::integer(up ? 1 : 0)},
                                {"Busy", PrefValue::integer(up && !operUp ? 1 : 0)}}});
      }
      out.entries.push_back(
          {interfaceEntityKey(name, "Link"), {{"Active", PrefValue::boolean((flags & IFF_LOWER_UP) != 0)}}});
      if (auto it = addresses.find(index); it != addresses.end()) {
        PrefValue::Array list;
        for (const std::string& a : it->second) list.push_back(PrefValue::string(a));
        out.entries.push_back({interfaceEntityKey(name, "IPv4"), {{"Addresses", PrefValue::array(list)}}});
      }
    }
    return true;
  }

  [[nodiscard]] bool registered(const std::string& key) const {
    if (keys.count(key)) return true;
    for (const std::regex& p : patterns) {
      if (std::regex_match(key, p)) return true;
    }
    return false;
  }

  // Drains pending notifications, reads everything afresh and reports the
  // registered keys whose values changed.
  void onReadable() {
    char buffer[16384];
    for (;;) {
      ssize_t n = recv(nl_socket_get_fd(events.get()), buffer, sizeof buffer, MSG_DONTWAIT);
      if (n > 0) continue;
      if (n < 0 && errno == EINTR) continue;
      // ENOBUFS: the kernel dropped notifications; the full read below
      // recovers the state they carried.
      if (n < 0 && errno == ENOBUFS) continue;
      break;
    }
    Snapshot next;
    int error = 0;
    if (!read(next, &error)) {
      SystemLogAt(LogPriority::Warning, "network state could not be read: %s", nl_geterror(error));
      return;
    }
    std::map<std::string, const PrefValue::Dictionary*> before;
    for (const auto& [key, value] : current.entries) before[key] = &value;
    std::vector<std::string> changed;
    std::set<std::string> seen;
    for (const auto& [key, value] : next.entries) {
      seen.insert(key);
      auto it = before.find(key);
      if ((it == before.end() || !(PrefValue::dictionary(*it->second) == PrefValue::dictionary(value))) &&
          registered(key))
        changed.push_back(key);
    }
    for (const auto& [key, value] : current.entries) {
      if (!seen.count(key) && registered(key)) changed.push_back(key);
    }
    current = std::move(next);
    if (!changed.empty() && callback) callback(changed);
  }
};

NetlinkDynamicStore::NetlinkDynamicStore(std::string sysfsRoot) : impl_(std::make_unique<Impl>()) {
  impl_->sysfsRoot = std::move(sysfsRoot);
}

NetlinkDynamicStore::~NetlinkDynamicStore() = default;

void NetlinkDynamicStore::setError(int code, std::string text) {
  errorCode_ = code;
  errorString_ = std::move(text);
}

bool NetlinkDynamicStore::open(ChangeCallback callback) {
  Impl& d = *impl_;
  d.callback = std::move(callback);
  d.events.reset(nl_socket_alloc());
  d.query.reset(nl_socket_alloc());
  if (!d.events || !d.query) {
    setError(ENOMEM, std::strerror(ENOMEM));
    return false;
  }
  nl_socket_disable_seq_check(d.events.get());
  int rc = nl_connect(d.events.get(), NETLINK_ROUTE);
  if (rc >= 0) rc = nl_socket_add_memberships(d.events.get(), RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, 0);
  if (rc >= 0) rc = nl_socket_set_nonblocking(d.events.get());
  if (rc >= 0) rc = nl_connect(d.query.get(), NETLINK_ROUTE);
  int error = 0;
  if (rc >= 0 && !d.read(d.current, &error)) rc = error;
  if (rc < 0) {
    setError(-rc, nl_geterror(rc));
    d.events.reset();
    d.query.reset();
    return false;
  }
  return true;
}

bool NetlinkDynamicStore::attach(RunLoop& runLoop) {
  Impl& d = *impl_;
  if (!d.events) {
    setError(EBADF, "the session is not open");
    return false;
  }
  if (d.source) {
    g_source_destroy(d.source);
    g_source_unref(d.source);
  }
  d.runLoop = &runLoop;
  d.source = g_unix_fd_source_new(nl_socket_get_fd(d.events.get()), G_IO_IN);
  g_source_set_callback(
      d.source,
      // A unix-fd source calls a GUnixFDSourceFunc through the generic type.
      reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(+[](gint, GIOCondition, gpointer data) -> gboolean {
        static_cast<Impl*>(data)->onReadable();
        return G_SOURCE_CONTINUE;
      })),
      &d, nullptr);
  g_source_attach(d.source, runLoop.context());
  return true;
}

bool NetlinkDynamicStore::setNotificationKeys(const std::vector<std::string>& keys,
                                              const std::vector<std::string>& patterns) {
  std::vector<std::regex> compiled;
  for (const std::string& p : patterns) {
    try {
      compiled.emplace_back(p, std::regex::extended);
    } catch (const std::regex_error& e) {
      setError(EINVAL, "invalid pattern \"" + p + "\": " + e.what());
      return false;
    }
  }
  impl_->keys = std::set<std::string>(keys.begin(), keys.end());
  impl_->patterns = std::move(compiled);
  return true;
}

std::optional<PrefValue::Dictionary> NetlinkDynamicStore::copyValue(const std::string& key) {
  for (const auto& [k, value] : impl_->current.entries) {
    if (k == key) return value;
  }
  return std::nullopt;
}

std::vector<std::string> NetlinkDynamicStore::interfaces() { return impl_->current.interfaces; }

}  // namespace zonara

#include "platform/vpn_detector.h"

#include <arpa/inet.h>
#include <gio/gio.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <sys/socket.h>

#include <memory>
#include <vector>

#include "platform/system_log.h"

namespace zonara {
namespace {

struct SocketFree {
  void operator()(nl_sock* s) const { nl_socket_free(s); }
};
struct MessageFree {
  void operator()(nl_msg* m) const { nlmsg_free(m); }
};
struct LinkPut {
  void operator()(rtnl_link* l) const { rtnl_link_put(l); }
};
struct VariantUnref {
  void operator()(GVariant* v) const { g_variant_unref(v); }
};
using Socket = std::unique_ptr<nl_sock, SocketFree>;
using Variant = std::unique_ptr<GVariant, VariantUnref>;

Socket routeSocket() {
  Socket sock(nl_socket_alloc());
  if (!sock || nl_connect(sock.get(), NETLINK_ROUTE) < 0) return nullptr;
  // Questions only: the answer is the acknowledgement (an extra one would
  // be read as the answer to the next question).
  nl_socket_disable_auto_ack(sock.get());
  return sock;
}

int outputInterfaceOf(nl_msg* reply, void* arg) {
  nlattr* attributes[RTA_MAX + 1];
  if (nlmsg_parse(nlmsg_hdr(reply), sizeof(rtmsg), attributes, RTA_MAX, nullptr) == 0 && attributes[RTA_OIF]) {
    *static_cast<int*>(arg) = static_cast<int>(nla_get_u32(attributes[RTA_OIF]));
  }
  return NL_OK;
}

// The index of the interface the kernel would send a packet to `address`
// through (policy rules applied); nullopt without such a route.
std::optional<int> routeInterface(nl_sock* sock, int family, const char* address) {
  unsigned char bytes[16];
  if (inet_pton(family, address, bytes) != 1) return std::nullopt;
  const int length = family == AF_INET ? 4 : 16;
  std::unique_ptr<nl_msg, MessageFree> request(nlmsg_alloc_simple(RTM_GETROUTE, NLM_F_REQUEST));
  if (!request) return std::nullopt;
  rtmsg header{};
  header.rtm_family = static_cast<unsigned char>(family);
  header.rtm_dst_len = static_cast<unsigned char>(length * 8);
  if (nlmsg_append(request.get(), &header, sizeof header, NLMSG_ALIGNTO) < 0 ||
      nla_put(request.get(), RTA_DST, length, bytes) < 0 || nl_send_auto(sock, request.get()) < 0) {
    return std::nullopt;
  }
  int interface = -1;
  nl_socket_modify_cb(sock, NL_CB_VALID, NL_CB_CUSTOM, outputInterfaceOf, &interface);
  // No route answers with an error (ENETUNREACH): no interface.
  if (nl_recvmsgs_default(sock) < 0 || interface <= 0) return std::nullopt;
  return interface;
}

// The VPN kind of the interface with `index` (or, with index 0, `name`).
std::string vpnKindOf(nl_sock* sock, int index, const char* name, std::unique_ptr<rtnl_link, LinkPut>* found) {
  rtnl_link* raw = nullptr;
  if (rtnl_link_get_kernel(sock, index, name, &raw) < 0 || !raw) return "";
  std::unique_ptr<rtnl_link, LinkPut> link(raw);
  const char* kind = rtnl_link_get_type(link.get());
  std::string vpn = vpnKindOfInterface(kind ? kind : "", rtnl_link_get_arptype(link.get()));
  if (found) *found = std::move(link);
  return vpn;
}

// "tun0, a tun interface" when the interface is a VPN's.
std::optional<std::string> describeVpnInterface(nl_sock* sock, int index) {
  std::unique_ptr<rtnl_link, LinkPut> link;
  const std::string vpn = vpnKindOf(sock, index, nullptr, &link);
  if (vpn.empty()) return std::nullopt;
  const char* name = rtnl_link_get_name(link.get());
  return std::string(name ? name : "?") + ", a " + vpn + " interface";
}

Variant callProperties(DBusConnection& bus, const char* path, const char* method, GVariant* arguments,
                       const char* replyType, std::chrono::milliseconds timeout) {
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(bus.get(), "org.freedesktop.NetworkManager", path,
                                                "org.freedesktop.DBus.Properties", method, arguments,
                                                G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                static_cast<gint>(timeout.count()), nullptr, &error);
  if (!reply) {
    SystemLogAt(LogPriority::Warning, "cannot ask NetworkManager for its connections: %s",
                error ? error->message : "no reply");
    if (error) g_error_free(error);
  }
  return Variant(reply);
}

std::vector<std::string> activeConnectionPaths(DBusConnection& bus, std::chrono::milliseconds timeout) {
  Variant reply = callProperties(bus, "/org/freedesktop/NetworkManager", "Get",
                                 g_variant_new("(ss)", "org.freedesktop.NetworkManager", "ActiveConnections"), "(v)",
                                 timeout);
  std::vector<std::string> paths;
  if (!reply) return paths;
  Variant value(g_variant_get_child_value(reply.get(), 0));
  Variant list(g_variant_get_variant(value.get()));
  if (!g_variant_is_of_type(list.get(), G_VARIANT_TYPE("ao"))) return paths;
  for (gsize i = 0; i < g_variant_n_children(list.get()); ++i) {
    Variant path(g_variant_get_child_value(list.get(), i));
    paths.emplace_back(g_variant_get_string(path.get(), nullptr));
  }
  return paths;
}

// "NetworkManager VPN connection \"ID\"" when the active connection at `path`
// is an activated VPN.
std::optional<std::string> describeVpnConnection(DBusConnection& bus, const std::string& path,
                                                 std::chrono::milliseconds timeout) {
  Variant reply = callProperties(bus, path.c_str(), "GetAll",
                                 g_variant_new("(s)", "org.freedesktop.NetworkManager.Connection.Active"),
                                 "(a{sv})", timeout);
  if (!reply) return std::nullopt;
  Variant properties(g_variant_get_child_value(reply.get(), 0));
  gboolean vpn = FALSE;
  guint32 state = 0;
  const char* type = "";
  const char* id = "";
  g_variant_lookup(properties.get(), "Vpn", "b", &vpn);
  g_variant_lookup(properties.get(), "State", "u", &state);
  g_variant_lookup(properties.get(), "Type", "&s", &type);
  g_variant_lookup(properties.get(), "Id", "&s", &id);
  constexpr guint32 kActivated = 2;
  const std::string kind = type;
  if (state != kActivated || !(vpn || kind == "vpn" || kind == "wireguard")) return std::nullopt;
  return "NetworkManager VPN connection \"" + std::string(id) + "\"";
}

}  // namespace

std::string vpnKindOfInterface(const std::string& linkKind, unsigned linkType) {
  if (linkKind == "tun") return "tun";
  if (linkKind == "wireguard") return "wireguard";
  if (linkKind == "ppp" || linkType == ARPHRD_PPP) return "ppp";
  if (linkKind == "xfrm" || linkKind == "vti" || linkKind == "vti6") return "ipsec";
  // A tun device of an older kernel (no kind): no link-layer header at all.
  if (linkKind.empty() && linkType == ARPHRD_NONE) return "tun";
  return "";
}

std::string vpnKindOfInterfaceNamed(const std::string& name) {
  Socket sock = routeSocket();
  return sock ? vpnKindOf(sock.get(), 0, name.c_str(), nullptr) : "";
}

std::optional<std::string> LinuxVpnDetector::vpnCarryingDefaultRoute() {
  Socket sock = routeSocket();
  if (!sock) {
    SystemLogAt(LogPriority::Warning, "cannot open a routing socket to look for a VPN");
    return std::nullopt;
  }
  const std::pair<int, const char*> destinations[] = {{AF_INET, "192.0.2.1"}, {AF_INET6, "2001:db8::1"}};
  for (const auto& [family, address] : destinations) {
    const std::optional<int> interface = routeInterface(sock.get(), family, address);
    if (!interface) continue;
    if (std::optional<std::string> vpn = describeVpnInterface(sock.get(), *interface)) return vpn;
  }
  return std::nullopt;
}

std::optional<std::string> LinuxVpnDetector::activeNetworkManagerVpn(DBusConnection& bus,
                                                                     std::chrono::milliseconds timeout) {
  if (!bus.nameHasOwner("org.freedesktop.NetworkManager")) return std::nullopt;
  for (const std::string& path : activeConnectionPaths(bus, timeout)) {
    if (std::optional<std::string> vpn = describeVpnConnection(bus, path, timeout)) return vpn;
  }
  return std::nullopt;
}

std::optional<std::string> LinuxVpnDetector::activeVpn() {
  if (std::optional<std::string> vpn = vpnCarryingDefaultRoute()) return vpn;
  if (systemBus_) return activeNetworkManagerVpn(*systemBus_);
  return std::nullopt;
}

}  // namespace zonara

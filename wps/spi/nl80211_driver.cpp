#include "wps/spi/nl80211_driver.h"

#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include <cerrno>
#include <cstring>

#include "wps/spi/network_manager_scan.h"

namespace WPS {
namespace SPI {

namespace nl80211 {

uint16_t channelFromFrequency(uint32_t mhz) {
  if (mhz == 2484) return 14;
  if (mhz >= 2412 && mhz < 2484) return static_cast<uint16_t>((mhz - 2407) / 5);
  if (mhz >= 4910 && mhz <= 4980) return static_cast<uint16_t>((mhz - 4000) / 5);
  if (mhz >= 5005 && mhz < 5925) return static_cast<uint16_t>((mhz - 5000) / 5);
  if (mhz == 5935) return 2;
  if (mhz >= 5955 && mhz <= 7115) return static_cast<uint16_t>((mhz - 5950) / 5);
  if (mhz >= 58320 && mhz <= 70200) return static_cast<uint16_t>((mhz - 56160) / 2160);
  return 0;
}

std::optional<std::string> ssidFromInformationElements(const unsigned char* data, size_t length) {
  if (data == nullptr) return std::nullopt;
  size_t pos = 0;
  while (pos + 2 <= length) {
    const unsigned id = data[pos];
    const size_t size = data[pos + 1];
    if (pos + 2 + size > length) return std::nullopt;  // truncated element
    if (id == 0) {
      const unsigned char* ssid = data + pos + 2;
      bool allZero = true;
      for (size_t i = 0; i < size; ++i) allZero = allZero && ssid[i] == 0;
      // Hidden networks announce an empty SSID or one of zero bytes.
      if (allZero) return std::string();
      return std::string(reinterpret_cast<const char*>(ssid), size);
    }
    pos += 2 + size;
  }
  return std::nullopt;
}

namespace {

struct nla_policy* bssPolicy() {
  static struct nla_policy policy[NL80211_BSS_MAX + 1] = {};
  static bool initialised = [] {
    policy[NL80211_BSS_FREQUENCY].type = NLA_U32;
    policy[NL80211_BSS_SIGNAL_MBM].type = NLA_U32;
    policy[NL80211_BSS_SIGNAL_UNSPEC].type = NLA_U8;
    policy[NL80211_BSS_SEEN_MS_AGO].type = NLA_U32;
    // BSSID and information elements are taken as they come; their lengths
    // are checked by the readers.
    return true;
  }();
  (void)initialised;
  return policy;
}

}  // namespace

bool parseScanResult(struct nl_msg* message, uint32_t maxAgeMilliseconds, ScanDictionary& out) {
  struct nlattr* attributes[NL80211_ATTR_MAX + 1];
  if (genlmsg_parse(nlmsg_hdr(message), 0, attributes, NL80211_ATTR_MAX, nullptr) < 0) return false;
  if (attributes[NL80211_ATTR_BSS] == nullptr) return false;
  struct nlattr* bss[NL80211_BSS_MAX + 1];
  if (nla_parse_nested(bss, NL80211_BSS_MAX, attributes[NL80211_ATTR_BSS], bssPolicy()) < 0) return false;

  if (bss[NL80211_BSS_SEEN_MS_AGO] != nullptr && nla_get_u32(bss[NL80211_BSS_SEEN_MS_AGO]) > maxAgeMilliseconds) {
    return false;
  }

  out = ScanDictionary();
  if (bss[NL80211_BSS_BSSID] != nullptr) {
    const auto* bytes = static_cast<const unsigned char*>(nla_data(bss[NL80211_BSS_BSSID]));
    out.bssid.emplace(bytes, bytes + nla_len(bss[NL80211_BSS_BSSID]));
  }
  if (bss[NL80211_BSS_SIGNAL_MBM] != nullptr) {
    out.signal = rawSignalFromMbm(static_cast<int32_t>(nla_get_u32(bss[NL80211_BSS_SIGNAL_MBM])));
  } else if (bss[NL80211_BSS_SIGNAL_UNSPEC] != nullptr) {
    out.signal = nla_get_u8(bss[NL80211_BSS_SIGNAL_UNSPEC]);
  }
  struct nlattr* elements = bss[NL80211_BSS_INFORMATION_ELEMENTS] != nullptr ? bss[NL80211_BSS_INFORMATION_ELEMENTS]
                                                                              : bss[NL80211_BSS_BEACON_IES];
  if (elements != nullptr) {
    out.ssid = ssidFromInformationElements(static_cast<const unsigned char*>(nla_data(elements)),
                                           static_cast<size_t>(nla_len(elements)));
  }
  if (bss[NL80211_BSS_FREQUENCY] != nullptr) {
    out.channel = channelFromFrequency(nla_get_u32(bss[NL80211_BSS_FREQUENCY]));
  }
  return true;
}

bool parseInterface(struct nl_msg* message, Interface& out) {
  struct nlattr* attributes[NL80211_ATTR_MAX + 1];
  if (genlmsg_parse(nlmsg_hdr(message), 0, attributes, NL80211_ATTR_MAX, nullptr) < 0) return false;
  struct nlattr* index = attributes[NL80211_ATTR_IFINDEX];
  if (index == nullptr || nla_len(index) < 4) return false;
  out = Interface();
  out.index = nla_get_u32(index);
  if (attributes[NL80211_ATTR_IFNAME] != nullptr) {
    const char* name = static_cast<const char*>(nla_data(attributes[NL80211_ATTR_IFNAME]));
    out.name.assign(name, strnlen(name, static_cast<size_t>(nla_len(attributes[NL80211_ATTR_IFNAME]))));
  }
  if (attributes[NL80211_ATTR_MAC] != nullptr && nla_len(attributes[NL80211_ATTR_MAC]) == 6) {
    std::memcpy(out.mac, nla_data(attributes[NL80211_ATTR_MAC]), 6);
  }
  if (attributes[NL80211_ATTR_IFTYPE] != nullptr && nla_len(attributes[NL80211_ATTR_IFTYPE]) >= 4) {
    out.type = nla_get_u32(attributes[NL80211_ATTR_IFTYPE]);
  }
  return true;
}

}  // namespace nl80211

namespace {

struct MessageFree {
  void operator()(struct nl_msg* message) const { nlmsg_free(message); }
};
struct CallbackPut {
  void operator()(struct nl_cb* callback) const { nl_cb_put(callback); }
};
using Message = std::unique_ptr<struct nl_msg, MessageFree>;
using Callback = std::unique_ptr<struct nl_cb, CallbackPut>;

// Opens a generic-netlink socket and resolves the nl80211 family. Returns 0 or
// a negative libnl code.
int openNl80211(std::unique_ptr<struct nl_sock, void (*)(struct nl_sock*)>& socket, int& family) {
  socket.reset(nl_socket_alloc());
  if (!socket) return -NLE_NOMEM;
  int rc = genl_connect(socket.get());
  if (rc < 0) return rc;
  family = genl_ctrl_resolve(socket.get(), "nl80211");
  return family < 0 ? family : 0;
}

// Sends a dump request and calls `handle(message)` for every answer. Returns 0
// or a negative libnl code.
template <typename Handler>
int dump(struct nl_sock* socket, int family, uint8_t command, uint32_t ifindex, Handler& handle) {
  Message message(nlmsg_alloc());
  if (!message) return -NLE_NOMEM;
  if (genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_DUMP, command, 0) == nullptr) {
    return -NLE_NOMEM;
  }
  if (ifindex != 0 && nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, ifindex) < 0) return -NLE_NOMEM;
  Callback callback(nl_cb_alloc(NL_CB_DEFAULT));
  if (!callback) return -NLE_NOMEM;
  nl_cb_set(
      callback.get(), NL_CB_VALID, NL_CB_CUSTOM,
      [](struct nl_msg* answer, void* argument) -> int {
        (*static_cast<Handler*>(argument))(answer);
        return NL_OK;
      },
      &handle);
  int rc = nl_send_auto(socket, message.get());
  if (rc < 0) return rc;
  rc = nl_recvmsgs(socket, callback.get());
  return rc < 0 ? rc : 0;
}

}  // namespace

void Nl80211Driver::SocketDeleter::operator()(struct nl_sock* socket) const { nl_socket_free(socket); }

Nl80211Driver::Nl80211Driver() : logger_(Logger::getLogger("WPS.SPI.Nl80211Driver")) {}

Nl80211Driver::~Nl80211Driver() { detach(); }

std::vector<nl80211::Interface> Nl80211Driver::listStationInterfaces() {
  std::vector<nl80211::Interface> interfaces;
  std::unique_ptr<struct nl_sock, void (*)(struct nl_sock*)> socket(nullptr, &nl_socket_free);
  int family = -1;
  if (openNl80211(socket, family) < 0) return interfaces;  // no nl80211: no Wi-Fi here
  auto collect = [&interfaces](struct nl_msg* message) {
    nl80211::Interface interface;
    if (nl80211::parseInterface(message, interface) && interface.type == NL80211_IFTYPE_STATION) {
      interfaces.push_back(interface);
    }
  };
  if (dump(socket.get(), family, NL80211_CMD_GET_INTERFACE, 0, collect) < 0) interfaces.clear();
  return interfaces;
}

bool Nl80211Driver::isAvailable() { return !listStationInterfaces().empty(); }

int Nl80211Driver::attach() {
  detach();
  std::vector<nl80211::Interface> interfaces = listStationInterfaces();
  if (interfaces.empty()) {
    logger_.error("no wireless interface");
    return ENODEV;
  }
  interface_ = interfaces.front();

  std::unique_ptr<struct nl_sock, void (*)(struct nl_sock*)> socket(nullptr, &nl_socket_free);
  int rc = openNl80211(socket, familyId_);
  if (rc < 0) {
    logger_.error("nl80211 socket failed: %s", nl_geterror(rc));
    return EIO;
  }
  socket_.reset(socket.release());
  logger_.info("scanning on %s (index %u)", interface_.name.c_str(), interface_.index);
  return 0;
}

void Nl80211Driver::detach() {
  socket_.reset();
  familyId_ = -1;
}

int Nl80211Driver::getCardInfo(unsigned char mac[6]) {
  if (!socket_) return ENODEV;
  std::memcpy(mac, interface_.mac, 6);
  return 0;
}

int Nl80211Driver::scanSplit(std::vector<SplitScanRecord>& out) {
  out.clear();
  return EOPNOTSUPP;
}

int Nl80211Driver::triggerScan() {
  Message message(nlmsg_alloc());
  if (!message) return -NLE_NOMEM;
  if (genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, familyId_, 0, 0, NL80211_CMD_TRIGGER_SCAN, 0) ==
          nullptr ||
      nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, interface_.index) < 0) {
    return -NLE_NOMEM;
  }
  int rc = nl_send_auto(socket_.get(), message.get());
  if (rc < 0) return rc;
  return nl_wait_for_ack(socket_.get());
}

void Nl80211Driver::requestFreshScan() {
  Time now = Time::now();
  if (lastTrigger_.isSet() && now - lastTrigger_ < kTriggerIntervalMilliseconds) return;
  lastTrigger_ = now;
  if (triggerPermitted_) {
    int rc = triggerScan();
    if (rc == 0) {
      logger_.debug("triggered a scan on %s", interface_.name.c_str());
      return;
    }
    if (rc != -NLE_PERM && rc != -NLE_NOACCESS) {
      // Mostly "busy": a scan is already under way, which serves as well.
      logger_.debug("trigger scan on %s failed: %s", interface_.name.c_str(), nl_geterror(rc));
      return;
    }
    logger_.debug("not permitted to trigger scans; asking NetworkManager");
    triggerPermitted_ = false;
  }
  (void)requestNetworkManagerScan(interface_.name);
}

int Nl80211Driver::scanDictionary(std::vector<ScanDictionary>& out) {
  out.clear();
  if (!socket_) return ENODEV;
  requestFreshScan();
  size_t stale = 0;
  auto collect = [&out, &stale](struct nl_msg* message) {
    ScanDictionary entry;
    if (nl80211::parseScanResult(message, nl80211::kMaxAgeMilliseconds, entry)) {
      out.push_back(std::move(entry));
    } else {
      ++stale;
    }
  };
  int rc = dump(socket_.get(), familyId_, NL80211_CMD_GET_SCAN, interface_.index, collect);
  if (rc < 0) {
    logger_.error("NL80211_CMD_GET_SCAN on %s failed: %s", interface_.name.c_str(), nl_geterror(rc));
    out.clear();
    return EIO;
  }
  logger_.debug("%zu cached results, %zu dropped as stale or unreadable", out.size() + stale, stale);
  return 0;
}

}  // namespace SPI
}  // namespace WPS

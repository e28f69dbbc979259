#include "sensors/telluro_helper.h"

#include <uuid/uuid.h>

#include <cctype>
#include <cmath>
#include <thread>

#include "platform/preferences_store.h"
#include "platform/run_loop.h"
#include "platform/system_log.h"

namespace zonara {
namespace {

constexpr const char* kUsernameKey = "telluroUsername";
constexpr const char* kLearnedRealmKey = "learnedPlacesRealm";

// The account file is a preferences domain named "Telluro" in its folder.
std::unique_ptr<PreferencesDomain> accountDomain(const std::string& accountPath) {
  const size_t slash = accountPath.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : accountPath.substr(0, slash);
  std::string name = slash == std::string::npos ? accountPath : accountPath.substr(slash + 1);
  if (name.size() > 6 && name.compare(name.size() - 6, 6, ".plist") == 0) name.resize(name.size() - 6);
  return std::make_unique<PreferencesDomain>(name, folder);
}

double singlePrecision(double value) {
  // Through memory, so the narrowing cannot be optimised away.
  volatile float narrowed = static_cast<float>(value);
  return narrowed;
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::optional<std::string> GetTelluroUsername(const std::string& accountPath) {
  std::optional<PrefValue> value = accountDomain(accountPath)->copyValue(kUsernameKey);
  if (!value || !value->isString()) return std::nullopt;
  return value->asString();
}

void SetTelluroUsername(const std::string& accountPath, const std::string& name) {
  std::unique_ptr<PreferencesDomain> domain = accountDomain(accountPath);
  domain->setValue(kUsernameKey, PrefValue::string(name));
  (void)domain->synchronize();  // a failed write means registering again next time
}

std::string NewUUIDString() {
  uuid_t uuid;
  uuid_generate(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

std::string LearnedPlacesRealm(const std::string& accountPath, bool create) {
  std::unique_ptr<PreferencesDomain> domain = accountDomain(accountPath);
  std::optional<PrefValue> value = domain->copyValue(kLearnedRealmKey);
  if (value && value->isString() && !value->asString().empty()) return value->asString();
  if (!create) return {};
  const std::string realm = NewUUIDString();
  domain->setValue(kLearnedRealmKey, PrefValue::string(realm));
  // A realm that is not kept would make every learned file unreadable later.
  return domain->synchronize() ? realm : std::string();
}

std::unique_ptr<TelluroAuthentication> GetTelluroAuthentication(LocationLibrary& library,
                                                                const std::string& accountPath) {
  auto auth = std::make_unique<TelluroAuthentication>();
  if (std::optional<std::string> stored = GetTelluroUsername(accountPath)) {
    auth->username = *stored;
  } else {
    const std::string uuid = NewUUIDString();
    const WPS_SimpleAuthentication registrar{TelluroHelper::kRegistrar, TelluroHelper::kRealm};
    const WPS_SimpleAuthentication user{uuid.c_str(), TelluroHelper::kRealm};
    const WPS_ReturnCode rc = library.registerUser(registrar, user);
    if (rc == WPS_OK) {
      SetTelluroUsername(accountPath, uuid);
      SystemLog("%s registered OK", uuid.c_str());
      auth->username = uuid;
    } else {
      SystemLog("Unable to register telluro user... %s\nerror: %i", uuid.c_str(), static_cast<int>(rc));
      auth->username = TelluroHelper::kFallbackUser;
    }
  }
  auth->record.username = auth->username.c_str();
  auth->record.realm = TelluroHelper::kRealm;
  return auth;
}

// One asynchronous lookup, shared by the lookup thread and the time-out
// timer. Whichever side claims the delivery first (under `mu`) delivers, after
// letting go of `mu`: the callback may take long, wait for another thread or
// start another lookup, and the other side must never wait for it.
struct TelluroHelper::Context {
  Mutex mu;
  Callback callback;
  bool delivered ZONARA_GUARDED_BY(mu) = false;  // claimed by the lookup thread or the time-out

  // True for the one caller that may deliver.
  bool claimDelivery() {
    MutexLock lock(mu);
    if (delivered) return false;
    delivered = true;
    return true;
  }
};

TelluroHelper::TelluroHelper(LocationLibrary& library, std::string dataFolder)
    : library_(library),
      accountPath_(withoutTrailingSlashes(dataFolder) + "/Telluro.plist"),
      // Exactly one slash ends the folder handed to the library.
      cacheFolder_(withoutTrailingSlashes(dataFolder) + "/Telluro Cache/") {}

TelluroHelper::~TelluroHelper() { waitForLookups(); }

void TelluroHelper::waitForLookups() {
  MutexLock lock(mu_);
  while (running_ != 0) idle_.wait(mu_);
}

bool TelluroHelper::lookupsRunning() {
  MutexLock lock(mu_);
  return running_ > 0;
}

std::optional<TelluroLocation> TelluroHelper::currentLocation() {
  SystemLog("fetching telluro location");
  // A server without accounts has nothing to register and no tiles to offer.
  auto auth = std::make_unique<TelluroAuthentication>();
  auth->record = WPS_SimpleAuthentication{"", ""};
  if (library_.usesAccounts()) {
    auth = GetTelluroAuthentication(library_, accountPath_);
    if (WPS_ReturnCode rc = library_.tiling(cacheFolder_, kTilesPerSession, kTilesTotal); rc != WPS_OK)
      SystemLog("*** WPS_tiling failed (%d)!\n\n", static_cast<int>(rc));
  }
  double longitude = 0, latitude = 0;
  PositionQuality quality;
  if (WPS_ReturnCode rc = library_.location(auth->record, &longitude, &latitude, &quality); rc != WPS_OK) {
    SystemLog("*** WPS_location failed (%i)!\n\n", static_cast<int>(rc));
    return std::nullopt;
  }
  // The position is kept in single precision: the library's doubles
  // narrowed to floats.
  return TelluroLocation{singlePrecision(longitude), singlePrecision(latitude), quality};
}

std::optional<TelluroLocation> TelluroHelper::ipLocation() {
  double longitude = 0, latitude = 0;
  if (WPS_ReturnCode rc = library_.ipLocation(&longitude, &latitude); rc != WPS_OK) {
    SystemLog("*** WPS_ip_location failed (%i)!", static_cast<int>(rc));
    return std::nullopt;
  }
  return TelluroLocation{longitude, latitude, {kUnstatedIPAccuracyMetres, PositionSource::IPAddress}};
}

void TelluroHelper::reportCurrentLocationTo(Callback callback, double timeoutSeconds) {
  auto context = std::make_shared<Context>();
  context->callback = std::move(callback);
  {
    MutexLock lock(mu_);
    ++running_;
  }
  const auto interval = std::chrono::milliseconds(static_cast<int64_t>(std::llround(timeoutSeconds * 1000.0)));
  // The timer is never cancelled: when it fires after the lookup delivered,
  // it finds the lookup finished and does nothing.
  (void)RunLoop::current().addTimer(interval, false, [context] { currentLocationLookupTimeout(context); });
  std::thread([this, context] { currentLocationLookup(context); }).detach();
}

void TelluroHelper::currentLocationLookup(const std::shared_ptr<Context>& context) {
  std::optional<TelluroLocation> location = currentLocation();
  if (context->claimDelivery()) context->callback(location);
  MutexLock lock(mu_);
  if (--running_ == 0) idle_.notifyAll();
}

void TelluroHelper::currentLocationLookupTimeout(const std::shared_ptr<Context>& context) {
  if (context->claimDelivery()) context->callback(std::nullopt);
}

float TelluroHelper::calculateDistanceFrom(float fromLongitude, float fromLatitude, float toLongitude,
                                           float toLatitude) {
  const float dx = fromLongitude - toLongitude;
  const float dy = fromLatitude - toLatitude;
  return std::sqrt(dx * dx + dy * dy) * 111.0f;
}

}  // namespace zonara

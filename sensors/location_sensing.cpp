#include "sensors/location_sensing.h"

namespace zonara {

std::string LocationSensingSettings::hostOfURL(const std::string& url) {
  size_t start = url.find("://");
  start = start == std::string::npos ? 0 : start + 3;
  size_t end = url.find_first_of("/?#", start);
  std::string authority = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
  if (size_t at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
  if (!authority.empty() && authority.front() == '[') {
    size_t close = authority.find(']');
    return authority.substr(1, close == std::string::npos ? std::string::npos : close - 1);
  }
  if (size_t colon = authority.find(':'); colon != std::string::npos) authority.resize(colon);
  return authority;
}

LocationSensingSettings LocationSensingSettings::fromPreferences(PreferencesDomain& preferences,
                                                                 const std::string& defaultServerURL) {
  auto text = [&](const char* key) {
    std::optional<PrefValue> value = preferences.copyValue(key);
    return value && value->isString() ? value->asString() : std::string();
  };
  LocationSensingSettings settings;
  // Only a missing key means the default: the empty text turns the server off.
  const std::optional<PrefValue> server = preferences.copyValue("PositioningServerURL");
  settings.positioningServerURL = server && server->isString() ? server->asString() : defaultServerURL;
  settings.ipLocationURL = text("IPLocationURL");
  const std::optional<PrefValue> learn = preferences.copyValue("LearnPlaces");
  settings.learnPlaces = !learn || learn->asBool();
  settings.reachabilityHost = text("ReachabilityHost");
  if (settings.reachabilityHost.empty()) settings.reachabilityHost = hostOfURL(settings.positioningServerURL);
  return settings;
}

std::unique_ptr<LocationSensing> LocationSensing::create(const Dependencies& d) {
  std::unique_ptr<LocationSensing> sensing(new LocationSensing());
  sensing->aggregator_ = std::make_unique<SensorAggregator>(*d.center);
  sensing->helper_ = std::make_unique<TelluroHelper>(*d.library, d.dataFolder);
  sensing->telluroSensor_ = std::make_unique<TelluroSensor>(
      *sensing->helper_, *d.reachability, *d.fetcher, *sensing->aggregator_,
      TelluroSensor::Config{d.settings.reachabilityHost, d.settings.ipLocationURL});  // see applySettings
  sensing->aggregator_->setStatusSource(sensing->telluroSensor_.get());
  if (d.watchNetwork) {
    sensing->networkSensor_ =
        std::make_unique<NetworkSensor>(CSystemConfigurationMonitor::monitor(), *sensing->telluroSensor_, *d.center);
  }
  return sensing;
}

LocationSensing::~LocationSensing() {
  networkSensor_.reset();
  telluroSensor_.reset();
  aggregator_.reset();
  helper_.reset();
}

void LocationSensing::willSleep() {
  telluroSensor_->willSleep();
  aggregator_->willSleep();
}

void LocationSensing::didWake() { telluroSensor_->didWake(); }

void LocationSensing::lookAgain() { telluroSensor_->performLocationCheck(); }

void LocationSensing::applySettings(const LocationSensingSettings& settings) {
  telluroSensor_->setConfig(TelluroSensor::Config{settings.reachabilityHost, settings.ipLocationURL});
}

}  // namespace zonara

#include "platform/notification_center.h"

#include <gtest/gtest.h>

namespace zonara {
namespace {

TEST(NotificationCenterTest, DeliversByNameInOrderWithObjectAndInfo) {
  NotificationCenter center;
  std::vector<std::string> seen;
  int poster = 0;
  center.addObserver("A", [&](const Notification& n) {
    EXPECT_EQ(n.object, &poster);
    seen.push_back("A1:" + n.userInfo.at("k"));
  });
  center.addObserver("B", [&](const Notification&) { seen.push_back("B"); });
  center.addObserver("", [&](const Notification& n) { seen.push_back("any:" + n.name); });
  center.addObserver("A", [&](const Notification&) { seen.push_back("A2"); });
  center.post(Notification{"A", &poster, {{"k", "v"}}});
  EXPECT_EQ(seen, (std::vector<std::string>{"A1:v", "any:A", "A2"}));
}

TEST(NotificationCenterTest, RemovalDuringDeliveryIsSafe) {
  NotificationCenter center;
  std::vector<std::string> seen;
  NotificationCenter::ObserverId self = 0, later = 0;
  self = center.addObserver("N", [&](const Notification&) {
    seen.push_back("self");
    EXPECT_TRUE(center.removeObserver(self));   // removes itself
    EXPECT_TRUE(center.removeObserver(later));  // and one not yet called
    center.addObserver("N", [&](const Notification&) { seen.push_back("added"); });
  });
  center.addObserver("N", [&](const Notification&) { seen.push_back("kept"); });
  later = center.addObserver("N", [&](const Notification&) { seen.push_back("removed"); });
  center.post("N");
  EXPECT_EQ(seen, (std::vector<std::string>{"self", "kept"}));
  seen.clear();
  center.post("N");
  EXPECT_EQ(seen, (std::vector<std::string>{"kept", "added"}));
  EXPECT_FALSE(center.removeObserver(self));
}

}  // namespace
}  // namespace zonara

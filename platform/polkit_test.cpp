#include "platform/polkit.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "platform/testing/fakes.h"
#include "platform/testing/test_bus.h"

namespace zonara {
namespace {

// The authority runs on a thread of its own, as polkitd would, because the
// check blocks its caller.
TEST(PolkitTest, TheAuthorityIsAskedForThisProcessWithoutInteraction) {
  testing::TestBus bus;
  ASSERT_TRUE(bus.ok());
  std::string error;
  std::unique_ptr<DBusConnection> client = DBusConnection::openAddress(bus.address(), &error);
  ASSERT_TRUE(client) << error;

  // Nobody to ask yet.
  PolkitVerdict none = CheckPolkitAuthorization(*client, kSetTimezoneAction);
  EXPECT_EQ(none.answer, PolkitVerdict::Answer::Unknown);
  EXPECT_FALSE(none.detail.empty());

  struct Case {
    bool authorized, challenge;
    PolkitVerdict::Answer expected;
  };
  for (const Case& c : {Case{true, false, PolkitVerdict::Answer::Allowed},
                        Case{false, true, PolkitVerdict::Answer::NeedsPassword},
                        Case{false, false, PolkitVerdict::Answer::Denied}}) {
    GMainContext* context = g_main_context_new();
    std::vector<std::string> questions;
    std::atomic<bool> ready{false}, done{false};
    std::thread authority([&] {
      g_main_context_push_thread_default(context);
      {
        std::string problem;
        std::unique_ptr<DBusConnection> own = DBusConnection::openAddress(bus.address(), &problem);
        testing::FakePolkitAuthority fake(*own);
        fake.authorized = c.authorized;
        fake.challenge = c.challenge;
        ready = true;
        while (!done) {
          g_main_context_iteration(context, FALSE);
          std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        questions = fake.questions;
      }
      g_main_context_pop_thread_default(context);
    });
    while (!ready) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const PolkitVerdict verdict = CheckPolkitAuthorization(*client, kSetTimezoneAction);
    done = true;
    authority.join();
    g_main_context_unref(context);
    EXPECT_EQ(verdict.answer, c.expected);
    EXPECT_EQ(questions, std::vector<std::string>{"unix-process pid=" + std::to_string(getpid()) +
                                                  " org.freedesktop.timedate1.set-timezone flags=0"});
  }
}

}  // namespace
}  // namespace zonara

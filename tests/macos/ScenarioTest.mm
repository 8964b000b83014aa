#include <algorithm>
#include <iterator>

#import "AdapterScenarioDriver.h"
#import "AdapterTest.h"
#import "CoreHolder.h"
#include "CoreScenarioDriver.h"
#include "platform/DynamicLoader.h"

namespace mirel::test {

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

namespace {

using ::testing::ElementsAreArray;

class BothImplementations : public ModuleTest, public ::testing::WithParamInterface<Scenario> {
 protected:
  struct Record {
    std::vector<std::string> lines;
    std::vector<std::string> moduleCalls;
    std::size_t numNotifications = 0;
  };

  /// Each has the platform's services, except for the home folder and the notifications.
  BothImplementations() {
    all_ = extensionServices();
    all_.user = user;
    all_.notifications = notifications;
    if (!GetParam().hasModule) user->moveTo("/nowhere");
  }

  void TearDown() override {
    // Each login and token leaves a session open.
    leavesOpen(script.openSessions());
    ModuleTest::TearDown();
  }

  Record onTheCore() {
    return played([this] { return coreScenarioDriver(all_); });
  }
  Record onTheAdapter() {
    ScopedExtensionServices services{all_};
    Record record = played([] { return adapterScenarioDriver(); });
    EXPECT_THAT(livingObjects(), ::testing::IsEmpty());
    return record;
  }

 private:
  Record played(const std::function<std::unique_ptr<ScenarioDriver>()>& makeDriver) {
    script.reset();
    notifications->posted.clear();
    prepare(GetParam(), script);
    const auto driver = makeDriver();
    Play play{*driver};
    GetParam().run(play, script);
    return {play.lines(), script.callTexts(), notifications->posted.size()};
  }

  PlatformServices all_;
};

/// The first line, from `first` on, that has the text in it.
auto lineWith(std::vector<std::string>::const_iterator first, const std::vector<std::string>& lines,
              const std::string& text) {
  return std::find_if(first, lines.end(),
                      [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

TEST_P(BothImplementations, SayTheSame) {
  const Record core = onTheCore();
  const Record adapter = onTheAdapter();
  EXPECT_THAT(adapter.lines, ElementsAreArray(core.lines));
  EXPECT_THAT(adapter.moduleCalls, ElementsAreArray(core.moduleCalls));
  EXPECT_EQ(adapter.numNotifications, core.numNotifications);

  auto next = adapter.lines.begin();
  for (const std::string& text : GetParam().mustSay) {
    next = lineWith(next, adapter.lines, text);
    ASSERT_TRUE(next != adapter.lines.end()) << "never, or too early: " << text << '\n'
                                             << ::testing::PrintToString(adapter.lines);
    // Two texts may ask for the same line when they differ.
    if (std::count(GetParam().mustSay.begin(), GetParam().mustSay.end(), text) > 1) ++next;
  }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, BothImplementations, ::testing::ValuesIn(scenarios()),
                         [](const auto& info) { return info.param.name; });

TEST(ScenarioTexts, LeaveOutAddresses) {
  EXPECT_EQ(withoutAddresses("[MirelSCToken-1] token = <MirelSCToken: 0x55d0c0ffee10>, 0x12"),
            "[MirelSCToken-1] token = <MirelSCToken>, 0x12");
}

}  // namespace
}  // namespace mirel::test

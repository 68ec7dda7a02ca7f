#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/notifications.h"

namespace platform {
namespace {

// Observers hear only their name, in the order they were added; one may
// remove itself or add another while it runs, which takes effect from the
// next post without upsetting the current one.
TEST(NotificationCenterTest, DeliversByNameInOrderAndSurvivesChangesDuringPost) {
  NotificationCenter center;
  std::vector<std::string> heard;
  NotificationCenter::ObserverId first = 0;
  first = center.add_observer("setState", [&](const Notification& n) {
    heard.push_back("first:" + n.name);
    center.remove_observer(first);
    center.add_observer("setState", [&](const Notification&) { heard.push_back("late"); });
  });
  center.add_observer("setState", [&](const Notification& n) {
    heard.push_back("second:" + n.object.value_or("-") + ":" + *n.user_info.find_string("k"));
  });
  center.add_observer("other", [&](const Notification&) { heard.push_back("other"); });

  Notification note{"setState", std::string("svc"), plist::Dict{{"k", plist::Value("v")}}};
  center.post(note);
  EXPECT_EQ(heard, (std::vector<std::string>{"first:setState", "second:svc:v"}));

  heard.clear();
  center.post(note);
  EXPECT_EQ(heard, (std::vector<std::string>{"second:svc:v", "late"}));

  center.remove_observer(12345);  // unknown ids are ignored
  heard.clear();
  center.post(Notification{"nobody", std::nullopt, {}});
  EXPECT_TRUE(heard.empty());
}

}  // namespace
}  // namespace platform

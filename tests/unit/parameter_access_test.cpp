// getEffectiveValue and setIfChanged against the daemon simulator.
#include "write_service/parameter_access.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "support/simulator.h"
#include "support/syslog_capture.h"

namespace {

TEST(GetEffectiveValue, PendingValueBeforeTheDaemons) {
  Simulator daemon(ParameterMap{{"/p", "stored"}});
  ConfigClient client;
  std::string value = "old";
  EXPECT_TRUE(getEffectiveValue(client, {{"/p", ""}}, "/p", value));
  EXPECT_EQ(value, "");
  EXPECT_TRUE(daemon.transcript().empty());
  EXPECT_TRUE(getEffectiveValue(client, {{"/q", ""}}, "/p", value));
  EXPECT_EQ(value, "stored");
  EXPECT_EQ(daemon.transcript(), std::vector<std::string>{"ls /p\\r"});
}

TEST(SetIfChanged, ComparesTheStoredValueNeverThePendingOne) {
  struct Case {
    const char* what;
    std::string path, newValue, expected;
    ChangeSet after;
    bool logged;
  };
  // "/p" is stored as "on" and pending as "pending" in every case.
  // clang-format off
  const Case cases[] = {
      {"plain, daemon holds it", "/p", "on", "", {{"/p", "pending"}}, false},
      {"plain, daemon differs", "/p", "off", "", {{"/p", "off"}}, true},
      {"conditional, daemon holds it", "/p", "on", "on", {{"/p", "on"}}, true},
      {"conditional, daemon holds another", "/p", "off", "standby", {{"/p", "pending"}}, false},
      {"conditional ignores newValue", "/p", "off", "on", {{"/p", "off"}}, true},
      {"daemon lacks the path", "/q", "x", "", {{"/p", "pending"}, {"/q", "x"}}, true}};
  // clang-format on
  SyslogCapture log;
  openlog(nullptr, LOG_PID, LOG_USER);  // the capture parses lines with a PID only
  Simulator daemon(ParameterMap{{"/p", "on"}});
  ConfigClient client;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ChangeSet changes = {{"/p", "pending"}};
    size_t seen = log.lines().size();
    EXPECT_TRUE(setIfChanged(client, changes, c.path, c.newValue, c.expected));
    EXPECT_EQ(changes, c.after);
    ASSERT_EQ(log.lines().size() - seen, c.logged ? 1u : 0u);
    if (c.logged) {
      EXPECT_EQ(log.lines().back().priority, LOG_USER | LOG_INFO);
      EXPECT_EQ(log.lines().back().message, "Setting parameter " + c.path + " to " + c.newValue);
    }
  }
}

}  // namespace

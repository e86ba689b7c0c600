#include "dispatcher/notification.h"

#include <gtest/gtest.h>

namespace {

TEST(NotificationTest, FiveFieldsAreTakenInOrder) {
  Notification told;
  ASSERT_TRUE(ParseNotification("20261124.AAA1@h\nkey\nSMTP-Router\nMail\n1", "key", told));
  EXPECT_EQ(told.name, "20261124.AAA1@h");
  EXPECT_EQ(told.function, "SMTP-Router");
  EXPECT_EQ(told.priority, 1);
  ASSERT_TRUE(ParseNotification(std::string(242, 'n') + "\nkey\nM\nError\n", "key", told));
  EXPECT_EQ(told.priority, kLowestPriority);
}

TEST(NotificationTest, HostileDatagramIsNeverObeyed) {
  struct {
    std::string text;
    char const *why;
  } const cases[] = {
      {"", "empty"},
      {"n\nkey\nM\nMail", "four fields"},
      {"n\nkey\nM\nMail\n1\n", "a field too many"},
      {"n\nkex\nM\nMail\n1", "wrong key"},
      {"n\n\nM\nMail\n1", "no key"},
      {"n\nkey2\nM\nMail\n1", "key with something behind it"},
      {"\nkey\nM\nMail\n1", "no name"},
      {"../x\nkey\nM\nMail\n1", "name leaves the directory"},
      {"a/b\nkey\nM\nMail\n1", "name with a slash"},
      {"a\\b\nkey\nM\nMail\n1", "name with a backslash"},
      {".hidden\nkey\nM\nMail\n1", "leading dot"},
      {std::string("a\0b\nkey\nM\nMail\n1", 17), "NUL in the name"},
      {"a\x81\nkey\nM\nMail\n1", "control byte with the top bit"},
      {std::string(243, 'n') + "\nkey\nM\nMail\n1", "name too long for its files"},
      {"n\nkey\n../sh\nMail\n1", "module path"},
      {"n\nkey\n-M\nMail\n1", "module that looks like an option"},
      {"n\nkey\n\nMail\n1", "no module"},
      {"n\nkey\nM\nmail\n1", "type in lower case"},
      {"n\nkey\nM\nMail\n-1", "negative priority"},
      {"n\nkey\nM\nMail\n1000", "priority of four digits"},
  };
  for (auto const &row : cases) {
    Notification told;
    EXPECT_FALSE(ParseNotification(row.text, "key", told)) << row.why;
  }
  Notification told;
  EXPECT_FALSE(ParseNotification("n\n\nM\nMail\n1", "", told)) << "no key yet: nobody may ask";
}

}  // namespace

#include "brenthaven/router/peruserfilter.h"

#include "tests/router/router_fixture.h"

namespace {

TEST_F(RouterTest, FilterServiceOfUsersIsReadAtEachCall) {
  SPerUserFilter filter;
  testing::internal::CaptureStderr();
  EXPECT_EQ(filter.RegistMax(), 1) << "no section";
  EXPECT_FALSE(filter.is_pufOn());
  EXPECT_FALSE(filter.puf_getPort().Defined() || filter.puf_getHost().Defined());
  std::string const line = "SMTP-Accept pufAction Config Open Error\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line + line + line);

  OpenSettings("SMTP-Accept", "/Config");
  EXPECT_EQ(filter.RegistMax(), 0) << "no value";
  EXPECT_FALSE(filter.is_pufOn());
  for (auto const &[key, value] : {std::pair("PUF-Enabled", "yes"),
                                   {"PUF-Filter-Max", "12.9"},
                                   {"PUF-Server-Port", "2000"},
                                   {"PUF-Server-Host", "filter.example"}})
    Setting("SMTP-Accept", "/Config", key, {value});
  EXPECT_TRUE(filter.is_pufOn());
  EXPECT_EQ(filter.RegistMax(), 12);
  EXPECT_EQ(filter.puf_getPort(), "2000");
  EXPECT_EQ(filter.puf_getHost(), "filter.example");
  Setting("SMTP-Accept", "/Config", "PUF-Enabled", {"Yes"});
  EXPECT_FALSE(filter.is_pufOn());
}

}  // namespace

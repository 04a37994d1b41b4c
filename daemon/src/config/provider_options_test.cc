#include <gtest/gtest.h>

#include "daemon/src/config/config.h"
#include "tests/support/test_support.h"

namespace {

TEST(ProviderOptionsTest, OptionSets) {
  struct Row {
    std::string provider_xml;
    std::string want;  // "KEY set: assignments" lines
    std::string log = "";
  } rows[] = {
      // Common options only give the set "default".
      {"<stream><threads> 8 </threads><size>1M</size></stream>",
       "STREAM default: VORN_PROVIDER_STREAM_THREADS=\"8\" VORN_PROVIDER_STREAM_SIZE=\"1M\" \n"},
      // Named sets end with the common options, and there is no default.
      {"<p><optionset id=\"b\"><x>2</x></optionset><c>3</c><optionset id=\"a\"><x>1</x></optionset>"
       "</p>",
       "P a: VORN_PROVIDER_P_X=\"1\" VORN_PROVIDER_P_C=\"3\" \n"
       "P b: VORN_PROVIDER_P_X=\"2\" VORN_PROVIDER_P_C=\"3\" \n"},
      {"<p><optionset><x>1</x></optionset><c>3</c></p>", "P default: VORN_PROVIDER_P_C=\"3\" \n",
       "Unable to find ID for optionset. Options will be ignored for provider P\n"},
      {"<p><a>x\"y</a><b>ok</b></p>", "P default: VORN_PROVIDER_P_B=\"ok\" \n",
       "Environment variables intended to be passed to providers should not contain double "
       "quotes. The value <x\"y> will be ignored.\n"},
      // Names differing in case share a key; the later one wins.
      {"<Disk><a>1</a></Disk><DISK><b>2</b></DISK>", "DISK default: VORN_PROVIDER_DISK_B=\"2\" \n"},
      {"<idle/>", "IDLE default: \n"},  // no options still give an empty default
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.provider_xml);
    vorn::test::TempDir dir;
    std::string path = dir / "vornd.xml";
    // Only the first provider container counts.
    vorn::test::write_file(path, "<configuration><provider>" + row.provider_xml +
                                     "</provider><provider><late><a>1</a></late></provider>"
                                     "</configuration>");
    daemon_config config;
    testing::internal::CaptureStderr();
    ASSERT_EQ(read_config(config, path.c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.log);
    std::string got;
    for (const auto& [key, sets] : config.option_sets) {
      for (const auto& [set, assignments] : sets) {
        got += key + " " + set + ": " + assignments + "\n";
      }
    }
    EXPECT_EQ(got, row.want);
  }
}

}  // namespace

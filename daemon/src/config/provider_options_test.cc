#include <gtest/gtest.h>

#include "daemon/src/config/config.h"
#include "tests/support/test_support.h"

namespace {

TEST(ProviderOptionsTest, OptionSets) {
  struct Row {
    const char* comment;
    std::string provider_xml;
    provider_option_map want;
    std::string log;
  } rows[] = {
      {"common options only give the set default",
       "<stream><threads> 8 </threads><size>1M</size></stream>",
       {{"STREAM",
         {{"default",
           "VORN_PROVIDER_STREAM_THREADS=\"8\" "
           "VORN_PROVIDER_STREAM_SIZE=\"1M\" "}}}},
       ""},
      {"named sets end with the common options, no default",
       "<p><optionset id=\"b\"><x>2</x></optionset><c>3</c>"
       "<optionset id=\"a\"><x>1</x></optionset></p>",
       {{"P",
         {{"a", "VORN_PROVIDER_P_X=\"1\" VORN_PROVIDER_P_C=\"3\" "},
          {"b", "VORN_PROVIDER_P_X=\"2\" VORN_PROVIDER_P_C=\"3\" "}}}},
       ""},
      {"optionset without id is skipped",
       "<p><optionset><x>1</x></optionset><c>3</c></p>",
       {{"P", {{"default", "VORN_PROVIDER_P_C=\"3\" "}}}},
       "Unable to find ID for optionset. Options will be ignored for provider P\n"},
      {"a value with a double quote is left out",
       "<p><a>x\"y</a><b>ok</b></p>",
       {{"P", {{"default", "VORN_PROVIDER_P_B=\"ok\" "}}}},
       "Environment variables intended to be passed to providers should not contain double "
       "quotes. The value <x\"y> will be ignored.\n"},
      {"names differing in case share a key; the later wins",
       "<Disk><a>1</a></Disk><DISK><b>2</b></DISK>",
       {{"DISK", {{"default", "VORN_PROVIDER_DISK_B=\"2\" "}}}},
       ""},
      {"a provider without options still gets an empty default",
       "<idle/>",
       {{"IDLE", {{"default", ""}}}},
       ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    vorn::test::TempDir dir;
    std::string path = dir / "vornd.xml";
    vorn::test::write_file(path, "<configuration><provider>" + row.provider_xml +
                                     "</provider><provider><late><a>1</a></late></provider>"
                                     "</configuration>");
    daemon_config config;
    testing::internal::CaptureStderr();
    ASSERT_EQ(read_config(config, path.c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.log);
    // Only the first provider container counts.
    EXPECT_EQ(config.option_sets, row.want);
  }
}

}  // namespace

// The settings file of `tavo serve` and how it merges with the command line.
#include "cli/serve_conf.h"

#include <gtest/gtest.h>

#include <fstream>

#include "cli/options.h"
#include "common/temp_root.h"

namespace tavo_server {
namespace {

class ServeConfTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& text) {
    std::string path = root_.Path("/serve.conf");
    std::ofstream(path) << text;
    return path;
  }
  tavo_test::TempRoot root_;
};

TEST_F(ServeConfTest, CommandLineWinsOverTheFile) {
  std::string path = Write(
      "# comment\n\n  listen = 0.0.0.0:9000 \nworkers=3\r\nroot = /srv/a\ninsecure-http = yes\n"
      "scheduling = normal\n");
  std::vector<std::string> merged;
  std::string used;
  ASSERT_TRUE(MergeServeConf({"--config", path, "--workers", "5"}, &merged, &used).ok());
  EXPECT_EQ(used, path);
  ServeOptions o;
  ASSERT_TRUE(ParseServeOptions(merged, &o).ok());
  EXPECT_EQ(o.workers, 5);
  EXPECT_EQ(o.host, "0.0.0.0");
  EXPECT_EQ(o.port, 9000);
  EXPECT_EQ(o.root, "/srv/a");
  EXPECT_TRUE(o.insecure_http);
  EXPECT_FALSE(o.batch_scheduling);
  EXPECT_FALSE(ParseServeOptions({"--scheduling", "fast"}, &o).ok());
  ASSERT_TRUE(ParseServeOptions({}, &o).ok());
  EXPECT_TRUE(o.batch_scheduling) << "the default";

  ASSERT_TRUE(MergeServeConf({"--config", "none", "--workers", "5"}, &merged, &used).ok());
  EXPECT_EQ(used, "");
  EXPECT_EQ(merged, (std::vector<std::string>{"--workers", "5"}));
}

TEST_F(ServeConfTest, ErrorsNameTheFileAndLine) {
  const struct {
    const char* text;
    const char* message;
  } cases[] = {
      {"workers = 3\nno equals sign\n", ":2: expected NAME = VALUE"},
      {"--workers = 3\n", ":1: '--workers' is not a setting"},
      {"config = /etc/other\n", ":1: 'config' is not a setting"},
      {"workers =\n", ":1: workers has no value"},
      {"insecure-http = maybe\n", ":1: insecure-http takes yes or no"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args;
    Status s = ReadServeConf(Write(c.text), &args);
    ASSERT_FALSE(s.ok()) << c.text;
    EXPECT_NE(s.message().find(root_.Path("/serve.conf") + c.message), std::string::npos)
        << s.message();
  }
  std::vector<std::string> merged;
  std::string used;
  EXPECT_FALSE(MergeServeConf({"--config", root_.Path("/missing")}, &merged, &used).ok());
  EXPECT_FALSE(MergeServeConf({"--config"}, &merged, &used).ok());
}

}  // namespace
}  // namespace tavo_server

// The fixture of the nphost program tests: a short-named folder of its own holding a small data
// file and a registry file for it, removed after the test.
#pragma once

#include "ProcessText.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace NphostTest {

// A folder of its own, removed after the test, holding reg.toml and np.txt: a number with two
// records, a number block with a longer number of its own, and a line that the plug-in rejects
// (line 5). The path is short: a control socket's path must fit in 108 bytes.
class ProgramFolderTest : public testing::Test {
protected:
  void SetUp() override {
    std::signal(SIGPIPE, SIG_IGN);  // writing to a program that ended must fail, not kill the test
    std::string pattern = "/tmp/nphost-test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folderM = pattern;
    writeFile("np.txt", "+4930123456  20200101000000  OPA\n030123456  20230301000000  OPB\n"
                        "0049151  20000101000000  BLK\n01511234567  20220101000000  OPC\nbad-line  20200101000000\n");
    writeFile("reg.toml", registry());
  }
  void TearDown() override { fs::remove_all(folderM); }
  void writeFile(const std::string& name, const std::string& text) const { std::ofstream(folderM / name) << text; }
  std::string readFile(const std::string& name) const { return readText(folderM / name); }

  fs::path folderM;
};

}  // namespace NphostTest

// The digests that the framework keeps of the files it read whole and rewrote: what a reading
// or a rewrite leaves, by name and by identity, and what one that stopped short takes away.
#include "FileTestSupport.h"
#include "STR/FileDigests.h"
#include "STR/FileIo.h"
#include "STR/FileIoTurbo.h"

#include <sys/stat.h>
#include <xxhash.h>

#include <optional>

namespace {

using namespace FileTesting;

// The library's own one-shot digest of the file as it is now, its size and modification time
// and identity: what a record of it must say.
STR::FileDigests::Record recordOf(const std::string& name) {
  const std::string bytes = NpTest::readText(name);
  const XXH128_hash_t hash = XXH3_128bits(bytes.data(), bytes.size());
  struct stat status {};
  EXPECT_EQ(::stat(name.c_str(), &status), 0) << name;
  return {{hash.high64, hash.low64}, bytes.size(), status.st_mtim, status.st_dev, status.st_ino};
}

std::string describe(const std::optional<STR::FileDigests::Record>& record) {
  if (!record) return "none";
  return record->digest.hex() + " " + std::to_string(record->size) + " bytes, modified " +
         std::to_string(record->modified.tv_sec) + "." + std::to_string(record->modified.tv_nsec) + ", file " +
         std::to_string(record->device) + ":" + std::to_string(record->inode);
}

// What FileDigests holds of `name`'s last reading (or rewrite), by name and, when both agree, by identity.
std::string known(const std::string& name, bool rewrite) {
  STR::FileDigests::Record byName, byIdentity;
  if (!(rewrite ? STR::FileDigests::lastRewrite(name, byName) : STR::FileDigests::lastReading(name, byName))) {
    return "none";
  }
  const bool identity = rewrite ? STR::FileDigests::lastRewrite(byName.device, byName.inode, byIdentity)
                                : STR::FileDigests::lastReading(byName.device, byName.inode, byIdentity);
  if (!identity || describe(byIdentity) != describe(byName)) return "by name only: " + describe(byName);
  return describe(byName);
}

// Reads `lines` lines (all of them when negative) as the loaders do, past a line too long, then closes.
void read(const std::string& name, int lines) {
  STR::FileIoTurbo reader;
  reader.openFile(BAS::String(name), 0);
  BAS::String line;
  endsWithoutHanging([&] {
    for (int n = 0; (lines < 0 || n < lines) && reader.stream() != nullptr && !std::feof(reader.stream()); ++n) {
      reader.readLine(line);
    }
  });
  reader.closeFile();
}

using FileDigestsTest = FileFixture;

TEST_F(FileDigestsTest, AReadingToTheEndLeavesTheDigestOfEveryByteAndOneCutShortLeavesNone) {
  const std::size_t limit = STR::FileIoTurbo::lineLimit();
  const struct {
    const char* label;
    std::string content;
    int lines;         // read before closing; negative: to the end
    bool complete;     // the last reading reached the end
  } rows[] = {
      {"a file several buffers long", numberedLines("line", 3 << 20), -1, true},
      {"an empty file", "", -1, true},
      {"a last line without a line end", "one\ntwo", -1, true},
      // The skipped rest of a line that is too long is part of the content all the same.
      {"a line longer than the limit", "short\n" + std::string(5000, 'x') + "\nafter\n", -1, true},
      {"closed after one line", numberedLines("line", 3 << 20), 1, false},
      {"opened and closed unread: the earlier reading stays", "one\ntwo\n", 0, true},
      {"closed before the last line end", "one\ntwo\nthree", 2, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    useFreshFolder(std::to_string(&row - rows));
    const std::string name = write("data.txt", row.content);
    read(name, -1);  // an earlier complete reading, which a reading cut short must not leave behind
    STR::FileIoTurbo::setLineLimit(1000);
    read(name, row.lines);
    STR::FileIoTurbo::setLineLimit(limit);
    EXPECT_EQ(known(name, false), row.complete ? describe(recordOf(name)) : "none");
  }
}

TEST_F(FileDigestsTest, ARewriteLeavesTheDigestOfWhatItWroteAndAFailedOneLeavesNone) {
  const struct {
    const char* label;
    long long failAfter;  // bytes written before writes fail; negative: never
    bool complete;
  } rows[] = {
      {"a rewrite", -1, true},
      {"a rewrite on a disk that fills up", 100, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    useFreshFolder(std::to_string(&row - rows));
    const std::string name = write("data.txt", "the old content\n");
    {
      STR::FileIo first{BAS::String(name), std::ios_base::out};  // an earlier rewrite that completed
      first.stream() << "an earlier rewrite\n";
      ASSERT_TRUE(first.closeFile());
    }
    STR::FileIo::failWritesAfterForTesting(row.failAfter);
    STR::FileIo output{BAS::String(name), std::ios_base::out};
    output.stream() << numberedLines("rewritten", 200000);
    EXPECT_EQ(output.closeFile(), row.complete);
    STR::FileIo::failWritesAfterForTesting(-1);
    EXPECT_EQ(known(name, true), row.complete ? describe(recordOf(name)) : "none");
  }
}

}  // namespace

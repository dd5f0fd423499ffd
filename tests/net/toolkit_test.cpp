#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/testutil.h"
#include "vantrel/net/VantrelToolKit.h"

namespace {

using TK = VantrelToolKit;

struct Copy {
  bool ok;
  TK::CopyFileCompletionState state;
  std::string failing;
};

Copy DoCopy(const std::string& from, const std::string& to) {
  Copy c{false, TK::COPY_STOPPED, ""};
  c.ok = TK::CopyFileA(from, to, c.state, c.failing);
  return c;
}

std::string Pattern(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 31 + i / 7);
  return s;
}

TEST(ToolkitCopy, CopiesWholeFilesOfEverySize) {
  vantrel::test::TempDir dir;
  for (std::size_t size : {std::size_t{0}, TK::kCopyBlockSize, TK::kCopyBlockSize + 1, 3 * TK::kCopyBlockSize - 5}) {
    const std::string content = Pattern(size);
    const std::string src = dir.write("src" + std::to_string(size), content);
    const std::string dst = dir.file("dst" + std::to_string(size));
    Copy c = DoCopy(src, dst);
    EXPECT_TRUE(c.ok) << size;
    EXPECT_EQ(c.state, TK::COPY_DONE);
    EXPECT_EQ(c.failing, src);
    EXPECT_EQ(vantrel::test::ReadFile(dst), content) << size;
  }
}

// Files that cannot be opened are covered where the service answers a local copy.
TEST(ToolkitCopy, ReadAndWriteFailuresReportStateAndFailingPath) {
  vantrel::test::TempDir dir;
  const std::string src = dir.write("src", Pattern(1000));

  // A folder opens but cannot be read: the partial destination is removed.
  Copy readError = DoCopy(dir.path(), dir.file("fromdir"));
  EXPECT_FALSE(readError.ok);
  EXPECT_EQ(readError.state, TK::COPY_READ_FAILED);
  EXPECT_EQ(readError.failing, dir.path());
  EXPECT_FALSE(std::filesystem::exists(dir.file("fromdir")));

  // A full device refuses the write; being a device it must not be deleted.
  Copy writeError = DoCopy(src, "/dev/full");
  EXPECT_EQ(writeError.state, TK::COPY_WRITE_FAILED);
  EXPECT_EQ(writeError.failing, "/dev/full");
  EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

TEST(ToolkitFiles, BufferHelpersAndDeletion) {
  vantrel::test::TempDir dir;
  const std::string content = Pattern(5000);
  const std::string path = dir.file("buf");
  {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen(path.c_str(), "wb"), std::fclose);
    ASSERT_TRUE(out);
    EXPECT_TRUE(TK::SaveBufferToFile(out.get(), content.data(), static_cast<unsigned>(content.size())));
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(path.c_str(), "rb"), std::fclose);
  ASSERT_TRUE(in);
  std::unique_ptr<char[]> buffer;
  long size = 0;
  ASSERT_TRUE(TK::ReadFileToBuffer(in.get(), buffer, size));
  EXPECT_EQ(std::string(buffer.get(), static_cast<std::size_t>(size)), content);
  EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '\0');
  EXPECT_FALSE(TK::ReadFileToBuffer(nullptr, buffer, size));
  EXPECT_EQ(buffer, nullptr);

  EXPECT_TRUE(TK::DeleteFileA(path));
  EXPECT_FALSE(TK::DeleteFileA(path));
}

}  // namespace

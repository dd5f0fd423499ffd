#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/testutil.h"
#include "vantrel/net/VantrelToolKit.h"
#include "vantrel/support/associativearray.h"

namespace {

using TK = VantrelToolKit;
using vantrel::test::ParameterText;
using vantrel::test::Pattern;

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

TEST(ToolkitCopy, RefusalsAndFailuresLeaveTheDestinationAsItWas) {
  vantrel::test::TempDir dir;
  const std::string content = Pattern(1000);
  const std::string src = dir.write("src", content);
  const std::string kept = dir.write("kept", "kept");
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_symlink(src, dir.file("link"));
  std::filesystem::create_hard_link(src, dir.file("hard"));
  // A folder or a pipe as the source, a device or a missing folder as the
  // destination: refused at the open, without waiting for a pipe's writer.
  // The source itself, under any name: refused, and the file untouched.
  const struct {
    std::string from, to;
    TK::CopyFileCompletionState state;
    std::string failing;
  } cases[] = {
      {dir.path(), kept, TK::COPY_OPEN_FAILED, dir.path()},
      {fifo, kept, TK::COPY_OPEN_FAILED, fifo},
      {src, "/dev/full", TK::COPY_OPEN_FAILED, "/dev/full"},
      {src, fifo, TK::COPY_OPEN_FAILED, fifo},
      {src, dir.file("no-such/dst"), TK::COPY_OPEN_FAILED, dir.file("no-such/dst")},
      {src, src, TK::COPY_SAME_FILE, src},
      {src, dir.file("link"), TK::COPY_SAME_FILE, dir.file("link")},
      {dir.file("hard"), dir.file("../") + std::filesystem::path(dir.path()).filename().string() + "/src",
       TK::COPY_SAME_FILE, dir.file("../") + std::filesystem::path(dir.path()).filename().string() + "/src"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.from + " -> " + c.to);
    Copy copy = DoCopy(c.from, c.to);
    EXPECT_FALSE(copy.ok);
    EXPECT_EQ(copy.state, c.state);
    EXPECT_EQ(copy.failing, c.failing);
  }
  EXPECT_EQ(vantrel::test::ReadFile(src), content);
  EXPECT_EQ(vantrel::test::ReadFile(kept), "kept");
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
  // No temporary file was left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 5);
}

TEST(ToolkitCopy, ACopyResultNeverExceedsTheMessageLimit) {
  constexpr std::uint32_t kMax = 1 << 20;
  const std::string huge(3 * kMax, 'p');
  const std::string echoed = ParameterText({{"$A", huge}});
  const cVantrelMessage request(9, "", "NoClient", "", "me", QTYPE_CLIENT, vantrel::wire::kFileCopy, 0, echoed.data(),
                                static_cast<std::uint32_t>(echoed.size()));
  // A small request is echoed; a large one is not, and a huge path is cut.
  for (const auto& [echo, path, echoKept] : {std::tuple{ParameterText({{"$A", "1"}}), std::string("/f"), true},
                                             {echoed, std::string("/f"), false},
                                             {echoed, huge, false}}) {
    std::unique_ptr<VantrelClientEvent> result(TK::CreateCopyResultEvent(request, echo, 3, path, kMax));
    EXPECT_LE(static_cast<std::uint64_t>(result->getPackedBufLen()), kMax);
    CAssociativeArray values;
    ASSERT_TRUE(values.FromString(result->getData(), static_cast<long>(result->getDatalen())));
    EXPECT_EQ(values.GetValueOfParameter(vantrel::wire::kCopyState), "3");
    EXPECT_EQ(values.HasParameter("$A"), echoKept);
  }
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

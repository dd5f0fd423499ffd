#include "vantrel/net/VantrelToolKit.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/testutil.h"

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

TEST(ToolkitCopy, FailuresReportStateAndFailingPath) {
  vantrel::test::TempDir dir;
  vantrel::test::LogCapture log;
  const std::string src = dir.write("src", Pattern(1000));

  Copy missing = DoCopy(dir.file("absent"), dir.file("out"));
  EXPECT_FALSE(missing.ok);
  EXPECT_EQ(missing.state, TK::COPY_OPEN_FAILED);
  EXPECT_EQ(missing.failing, dir.file("absent"));
  EXPECT_TRUE(log.contains("VantrelToolKit::CopyFile Failed to open input for read"));

  const std::string unwritable = dir.file("no/such/folder/out");
  Copy cannotWrite = DoCopy(src, unwritable);
  EXPECT_EQ(cannotWrite.state, TK::COPY_OPEN_FAILED);
  EXPECT_EQ(cannotWrite.failing, unwritable);
  EXPECT_TRUE(log.contains("VantrelToolKit::CopyFile Failed to open output for write"));

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

TEST(ToolkitEvents, BuildersMapTheFieldsOfTheReceivedMessage) {
  cVantrelMessage m(77, "toH", "toC", "fromH", "fromC", QTYPE_CLIENT, 5, 0, "request", 8);

  std::unique_ptr<VantrelClientEvent> rc(TK::CreateReturnClientEvent(m, "answer", 7, 102, QTYPE_ASYNC));
  EXPECT_EQ(rc->getMessageId(), 77u);
  EXPECT_STREQ(rc->getToHost(), "fromH");
  EXPECT_STREQ(rc->getToClient(), "fromC");
  EXPECT_STREQ(rc->getFromHost(), "toH");
  EXPECT_STREQ(rc->getFromClient(), "toC");
  EXPECT_EQ(rc->getQtype(), QTYPE_ASYNC);
  EXPECT_EQ(rc->getType(), 102);
  EXPECT_EQ(rc->getSubtype(), 0);
  EXPECT_STREQ(rc->getData(), "answer");

  std::unique_ptr<VantrelHostEvent> rh(TK::CreateReturnHostEvent(m, "D", 1, 7, QTYPE_SYNC, 1));
  EXPECT_STREQ(rh->getToHost(), "fromH");
  EXPECT_STREQ(rh->getFromClient(), "toC");
  EXPECT_EQ(rh->getSubtype(), 1);
  EXPECT_EQ(rh->getDatalen(), 1u);

  std::unique_ptr<VantrelHostEvent> sh(TK::CreateSendHostEvent(m, "/dst", 5, 6, QTYPE_ASYNC));
  EXPECT_EQ(sh->getQtype(), QTYPE_SYNC) << "a send event always carries QType 1";
  EXPECT_STREQ(sh->getToHost(), "toH");
  EXPECT_STREQ(sh->getToClient(), "toC");
  EXPECT_STREQ(sh->getFromHost(), "fromH");
  EXPECT_STREQ(sh->getFromClient(), "fromC");
  EXPECT_EQ(sh->getType(), 6);
}

TEST(ToolkitFiles, BufferHelpersAndErrors) {
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
  EXPECT_EQ(TK::hgGetLastError(), ENOENT);
  EXPECT_NE(TK::GetErrorString(ENOENT).find("No such file"), std::string::npos);
  EXPECT_EQ(TK::GetLocalHostOS(), "");
}

}  // namespace

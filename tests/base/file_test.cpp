// Files as the copy code uses them, through the platform header only, with the
// names people give files: blanks and letters beyond ASCII included.
#include "vantrel/base/platform/file.h"

#include <gtest/gtest.h>

#include "tests/support/testutil.h"

namespace vantrel::platform {
namespace {

TEST(File, CreateReadRenameAndRemoveKeepNamesIntact) {
  vantrel::test::TempDir dir;
  for (const std::string name : {"plain.bin", "with  two blanks.bin", "caf\xC3\xA9 \xE6\x9D\xB1\xE4\xBA\xAC.bin"}) {
    SCOPED_TRACE(name);
    const std::string path = dir.file(name);
    const std::string bytes = vantrel::test::Pattern(70000, 3);
    cFile created = cFile::CreateNew(path);
    ASSERT_TRUE(created.IsOpen()) << created.Why();
    ASSERT_TRUE(created.WriteAll(bytes.data(), bytes.size()));
    ASSERT_TRUE(created.Close());
    // Never over an existing file.
    EXPECT_FALSE(cFile::CreateNew(path).IsOpen());

    const auto status = gFileStatus(path);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->kind, tFileKind::eRegular);
    EXPECT_EQ(status->size, bytes.size());
    cFile read = cFile::OpenRegularForReading(path);
    ASSERT_TRUE(read.IsOpen()) << read.Why();
    std::string back(bytes.size() + 10, '\0');
    EXPECT_EQ(read.ReadFull(back.data(), back.size()), bytes.size());
    back.resize(bytes.size());
    EXPECT_EQ(back, bytes);
    EXPECT_TRUE(read.Status()->SameFileAs(*status));
    read.Close();

    // The resolved path ends in the same name, with '/' between its parts.
    const auto resolved = gResolvePath(path);
    ASSERT_TRUE(resolved.has_value());
    EXPECT_EQ(resolved->substr(resolved->size() - name.size() - 1), "/" + name);
    EXPECT_EQ(resolved->find('\\'), std::string::npos) << *resolved;

    // A rename replaces what is there.
    const std::string target = dir.write(name + ".old", "old");
    ASSERT_TRUE(gRenameFile(path, target));
    EXPECT_EQ(gFileKind(path), tFileKind::eMissing);
    EXPECT_EQ(vantrel::test::ReadFile(target), bytes);
    EXPECT_TRUE(gRemoveFile(target));
    EXPECT_FALSE(gRemoveFile(target));
    EXPECT_FALSE(gFileStatus(target).has_value());
  }
}

TEST(File, FoldersAndMissingFilesAreRefusedWithTheirReason) {
  vantrel::test::TempDir dir;
  EXPECT_EQ(gFileKind(dir.path()), tFileKind::eDirectory);
  const cFile folder = cFile::OpenRegularForReading(dir.path());
  EXPECT_FALSE(folder.IsOpen());
  EXPECT_EQ(folder.Why(), "is a folder");

  const cFile missing = cFile::OpenRegularForReading(dir.file("missing \xC3\xA9.bin"));
  EXPECT_FALSE(missing.IsOpen());
  EXPECT_NE(missing.Error(), 0);
  EXPECT_EQ(missing.Why(), gFileErrorText(missing.Error()));
  EXPECT_FALSE(gIsAccessDenied(missing.Error()));
  EXPECT_FALSE(gResolvePath(dir.file("missing")).has_value());
}

}  // namespace
}  // namespace vantrel::platform

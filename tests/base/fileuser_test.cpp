// Whose rights a file operation uses, through the platform header only.
#include "vantrel/base/platform/fileuser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <tuple>

#include "tests/support/testutil.h"

namespace vantrel::platform {
namespace {

TEST(FileUser, TheUserBehindALoopbackConnectionIsFound) {
  cSocketResult result;
  const tSocket listener = gOpenStreamSocket(tAddressFamily::eIPv4, result);
  ASSERT_NE(listener, kNoSocket);
  ASSERT_TRUE(gBindIPv4(listener, tListenAddress::eLoopback, 0).Ok());
  ASSERT_TRUE(gListen(listener).Ok());
  const tSocket client = gOpenStreamSocket(tAddressFamily::eIPv4, result);
  const auto address = gLookUp("127.0.0.1", gLocalEndpoint(listener).port, tLookup::eIPv4Only);
  ASSERT_FALSE(address.addresses.empty());
  gStartConnect(client, address.addresses[0]);
  tSocket accepted = kNoSocket;
  ASSERT_TRUE(vantrel::test::WaitUntil([&] { return (accepted = gAccept(listener, result)) != kNoSocket; }));
  // Where the tables name no owners the user is unknown, never a wrong one.
  const auto expected = gConnectionOwnersKnown() ? std::optional(gProcessUser()) : std::nullopt;
  EXPECT_EQ(gLoopbackPeerUser(accepted), expected);
  for (tSocket socket : {accepted, client, listener}) gCloseSocket(socket);
  if (!gConnectionOwnersKnown()) GTEST_SKIP() << "this system's connection tables name no owning process";
}

TEST(FileUser, PermissionBitsAreReadForOwnerGroupAndOthers) {
  // The owner's bits count for the owner even where the group's would allow more.
  // Where rights are access lists the bits grant nothing.
  const bool modeBits = gRightsFollowModeBits();
  const cUserAccount user{1000, 1000, {1000, 50}, "user"};
  for (const auto& [owner, group, mode, read, write] : {std::tuple{1000u, 0u, 0600u, true, true},
                                                        {1000u, 50u, 0060u, false, false},
                                                        {0u, 50u, 0640u, true, false},
                                                        {0u, 0u, 0604u, true, false},
                                                        {0u, 0u, 0660u, false, false},
                                                        {0u, 1000u, 0020u, false, true}}) {
    cFileStatus status;
    std::tie(status.owner, status.group, status.mode) = std::tie(owner, group, mode);
    EXPECT_EQ(gUserMay(user, status, tAccess::eRead), modeBits && read) << mode;
    EXPECT_EQ(gUserMay(user, status, tAccess::eWrite), modeBits && write) << mode;
  }
}

TEST(FileUser, AThreadOpensFilesAsAnotherUserAndOnlyThatThread) {
  if (!gCanSwitchFileUser()) GTEST_SKIP() << "this process may not take another user's file identity";
  const auto nobody = gLookUpUser(65534);
  if (!nobody) GTEST_SKIP() << "no user 65534 on this system";
  vantrel::test::TempDir dir;
  std::filesystem::permissions(dir.path(), std::filesystem::perms::all);
  const std::string secret = dir.write("secret", "root only");
  std::filesystem::permissions(secret, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  std::promise<void> switched, checked;
  auto other = std::async(std::launch::async, [&] {
    cFileUserScope scope(*nobody);
    EXPECT_TRUE(scope.Active());
    EXPECT_FALSE(cFile::OpenRegularForReading(secret).IsOpen());
    EXPECT_TRUE(cFile::CreateNew(dir.file("by-nobody")).IsOpen());
    switched.set_value();
    checked.get_future().wait();
  });
  switched.get_future().wait();
  // Meanwhile this thread keeps the process's own identity.
  EXPECT_TRUE(cFile::OpenRegularForReading(secret).IsOpen());
  EXPECT_TRUE(cFile::CreateNew(dir.file("by-me")).IsOpen());
  checked.set_value();
  other.get();
  EXPECT_EQ(gFileStatus(dir.file("by-nobody"))->owner, 65534u);
  EXPECT_EQ(gFileStatus(dir.file("by-me"))->owner, gProcessUser());
}

}  // namespace
}  // namespace vantrel::platform

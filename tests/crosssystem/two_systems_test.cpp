// A Linux service and a Windows one (vantrel.exe under wine) on one machine,
// linked over their net ports: the same wire both ways, plain and over TLS
// with verification. Skipped, with the reason, where there is no Windows build
// or no wine.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "tests/support/servicehelper.h"
#include "tests/support/tlscerts.h"

namespace vantrel::test {
namespace {

using namespace std::chrono_literals;

// Starts the service program as vantrel.exe under wine: the launcher swaps the
// Linux program in the command line for wine and the Windows one. wine shows
// the Linux folders on drive Z:, and the service starts in one, so the Linux
// paths of its settings, log, certificates and copies mean the same there.
void UnderWine(ServiceProcess& service) {
  service.setEnv("WINEPREFIX", VANTREL_WINE_PREFIX);
  service.setEnv("WINEDEBUG", "-all");
  service.setLauncher({"/bin/sh", "-c",
                       "for a; do shift; if [ \"$a\" = \"$0\" ]; then set -- \"$@\" '" VANTREL_WINE
                       "' '" VANTREL_WINDOWS_PROGRAM "'; else set -- \"$@\" \"$a\"; fi; done; exec \"$@\"",
                       VANTREL_BINARY_DIR "/programs/vantrel"});
}

std::string At(const char* client, const ServiceProcess& service) {
  return std::string(client) + "@" + service.hostText();
}

// The next answer `client` got: its type, id and text ("103 #7 Connection to host broke.").
std::string Answer(TestClient& client) {
  const auto record = client.next();
  if (!record) return "<none>";
  return std::to_string(record->getType()) + " #" + std::to_string(record->getMessageId()) + " " +
         std::string(record->getData(), record->getDatalen()).c_str();
}

TEST(TwoSystemsTest, MessagesCopiesAndABrokenLinkBothWaysPlainAndOverTls) {
  if (!std::filesystem::exists(VANTREL_WINDOWS_PROGRAM))
    GTEST_SKIP() << "no Windows build at " VANTREL_WINDOWS_PROGRAM " (make windows, or configure with "
                 << "-DVANTREL_WINDOWS_PROGRAM=<vantrel.exe>)";
  if (!std::filesystem::exists(VANTREL_WINE)) GTEST_SKIP() << "wine64 is not installed (" VANTREL_WINE ")";
  ScopedEnv prefix("WINEPREFIX", VANTREL_WINE_PREFIX), quiet("WINEDEBUG", "-all");
  // The first start of a wine prefix makes it, which takes longer than a
  // service's start may.
  const RQPRunResult version =
      RQPRunAndCapture(VANTREL_WINE, {VANTREL_WINDOWS_PROGRAM, "--version"}, nTime::cDiff::FromSeconds(120));
  if (version.exitCode != 0) GTEST_SKIP() << "wine cannot run vantrel.exe: " << version.errorText << version.output;

  TestAuthority ca("vantrel cross-system ca");
  TempDir files;
  const std::vector<std::string> hostNames = {LocalHostName(), "localhost"};
  ca.WriteHostFolder(files.file("linux-certs"), hostNames, {"127.0.0.1"});
  ca.WriteHostFolder(files.file("windows-certs"), hostNames, {"127.0.0.1"});
  const auto ini = [&](bool tls, const char* certs) {
    return tls ? "UseOpenSsl = 1\nCertificatesPath = " + files.file(certs) +
                     "\nVerifyServerCertificate = 1\nVerifyClientCertificate = 1\n"
               : std::string();
  };
  // Several chunks, and a pattern in which a lost or misplaced byte shows.
  const std::string content = Pattern(1000000, 7);
  const std::string source = files.write("source.bin", content);

  for (const bool tls : {false, true}) {
    for (const bool fromWindows : {false, true}) {
      SCOPED_TRACE(std::string(tls ? "TLS, " : "plain, ") + (fromWindows ? "Windows to Linux" : "Linux to Windows"));
      ServiceProcess linuxService(ini(tls, "linux-certs")), windowsService(ini(tls, "windows-certs"));
      UnderWine(windowsService);
      ServiceProcess& a = fromWindows ? windowsService : linuxService;
      ServiceProcess& b = fromWindows ? linuxService : windowsService;
      TestClient alice, bob;
      // wine starts programs more slowly, the more so while its server restarts.
      for (ServiceProcess* service : {&a, &b})
        ASSERT_TRUE(service->start() && service->waitLog("vantrel ready", 60s)) << service->log();
      ASSERT_TRUE(alice.NETInitZ641("alice", a.clientsPort()));
      ASSERT_TRUE(bob.NETInitZ641("bob", b.clientsPort()));

      ASSERT_TRUE(alice.NETSendMessageZ1("over", 5, At("bob", b).c_str())) << a.log() << b.log();
      EXPECT_EQ(bob.nextText(), "2 over");
      ASSERT_TRUE(alice.NETSendMessageNowaitZ1(31, "nowait", 7, At("bob", b).c_str()));
      const auto received = bob.next();
      ASSERT_TRUE(received.has_value());
      EXPECT_EQ(received->getMessageId(), 31u);
      ASSERT_TRUE(alice.NETSendMessageNowaitZ1(32, "lost", 5, At("nobody", b).c_str()));
      EXPECT_EQ(Answer(alice).rfind("103 #32 ", 0), 0u) << "not delivered, answered with its id";

      const std::string target = files.file(std::string("copy-") + (tls ? "tls-" : "") + (fromWindows ? "w" : "l"));
      // The command-line client of a's system asks for the copy: a Windows
      // service copies only for clients it can name, which a Linux process is
      // not. Windows names files its own way; a leading '/' would be an option.
      std::vector<std::string> cli = {VANTREL_BINARY_DIR "/programs/vantrel-cli"};
      if (fromWindows) cli = {VANTREL_WINE, VANTREL_WINDOWS_CLI};
      cli.insert(cli.end(), {"--port", std::to_string(a.clientsPort()), "copy", "--",
                             (fromWindows ? "Z:" : "") + source, b.hostText(), target});
      const RQPRunResult copied =
          RQPRunAndCapture(cli.front(), {cli.begin() + 1, cli.end()}, nTime::cDiff::FromSeconds(120));
      EXPECT_EQ(copied.exitCode, 0) << copied.errorText << copied.output << a.log() << b.log();
      EXPECT_TRUE(ReadFile(target) == content) << "the copy differs from its source";

      b.kill();
      ASSERT_TRUE(a.waitLog("Removing host " + b.hostText())) << a.log();
      ASSERT_TRUE(alice.NETSendMessageNowaitZ1(41, "gone", 5, At("bob", b).c_str()));
      EXPECT_EQ(Answer(alice), "103 #41 Connection to host broke.") << a.log();
    }
  }
}

}  // namespace
}  // namespace vantrel::test

// A minimal application built against the installed package: it uses only the
// public headers and the exported symbols.
#include <vantrel/client/vantrelclientobj.h>
#include <vantrel/message/packmsg.h>
#include <vantrel/support/associativearray.h>
#include <vantrel/version.h>

#include <cstdio>
#include <cstring>
#include <string>

int main() {
  int failures = 0;
  auto check = [&](bool ok, const char* what) {
    if (!ok) {
      std::printf("consumer: %s failed\n", what);
      ++failures;
    }
  };

  cVantrelClientObject bus;
  check(!bus.Valid(), "Valid before init");
  check(bus.NETGetLastStatus() == -1, "status before init");
  check(!bus.NETSendMessageZ1("x", 2, "a@b"), "send before init");

  cVantrelMessage record(7, "lg02", "player", "lg01", "recorder", QTYPE_CLIENT, vantrel::wire::kSend, 0, "hello", 6);
  cVantrelMessage back(record.getPackedBuf(), record.getPackedBufLen(), vantrel::wire::kSend, 0);
  check(back.isValid() && std::strcmp(back.getToClient(), "player") == 0 && back.getMessageId() == 7,
        "record round trip");

  CAssociativeArray params;
  params.AddCouple(vantrel::wire::kCopyLocalFile, "/tmp/a b");
  params.AddCouple(vantrel::wire::kCopyState, 0L);
  std::string text;
  long length = 0;
  params.ToString(text, length, false, false);
  CAssociativeArray parsed;
  check(parsed.FromString(text.c_str(), length) && parsed[vantrel::wire::kCopyLocalFile] == "/tmp/a b",
        "parameter text round trip");

  // Catching by type needs the library's type information.
  bool caught = false;
  try {
    parsed.GetRequiredValue("$MISSING");
  } catch (const QXErrorException&) {
    caught = true;
  }
  check(caught, "error caught by its base class");
  check(std::strcmp(VantrelVersion(), VANTREL_VERSION_STRING) == 0, "library version equals header version");

  VantrelClientTerminate();
  if (failures == 0) std::printf("consumer ok\n");
  return failures == 0 ? 0 : 1;
}

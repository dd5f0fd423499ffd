#pragma once
// cSupervisedVantrelClass: the service object with the service program's
// supervision in its hooks. A socket failure the service cannot recover from
// ends the process by the restart rule (exit 42, after starting a successor
// unless systemd restarts the unit), and a busy port is not reported as held by
// a foreign program while another service process runs or the system service is
// installed and running.
//
// Ownership and threads as CVantrelClass; the hooks are called on connection
// threads and the busy-check thread and keep no state of their own.
#include "vantrel/service/vantrelclass.h"

class cSupervisedVantrelClass : public CVantrelClass {
 public:
  using CVantrelClass::CVantrelClass;

  // Keeps the program's arguments for a relaunch; the program's main calls it
  // once, before anything else.
  static void RememberProcessArguments(int argc, char** argv);

 protected:
  void RestartProcess() override;
  bool IsOtherServiceProcessRunning() override;
};

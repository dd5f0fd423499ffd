#pragma once
// The client API of the Vantrel message bus.
//
// An application creates a cVantrelClientObject, registers under a client name
// with NETInitZ641, then sends messages to "client@host" addresses (with or
// without acknowledgement, or without waiting), receives messages by waiting,
// by polling or through the NewMessageEvent hook, and asks for file copies.
//
//   cVantrelClientObject bus;
//   if (bus.NETInitZ641("recorder", 0)) {
//     bus.NETSendMessageZ1("hello", 6, "player@lg02");
//     const char* text = bus.NETWaitMessageX2();
//   }
//
// No operation lets an exception reach the application: failures are results
// (false, null, the empty text) and NETGetLastStatus tells why:
//   0      no error
//   15005  not initialised (or no longer), or a wait that returned no message
//   15007  the frame could not be sent to the service
//   15008  the service's acknowledgement was not positive
//
// Ownership: the application owns the object; the object owns its
// implementation (connection, reader thread, queues). Do not copy an object
// that has been initialised: the copy shares the implementation and both
// would destroy it.
// Threads: operations may be called from application threads; one thread at a
// time should wait or fetch, since a returned record stays valid only until
// that thread's next wait or fetch. NewMessageEvent runs on the library's
// reader thread.
#include "vantrel/base/export.h"
#include "vantrel/message/packmsg.h"
#include "vantrel/message/typedmsg.h"

class cVantrelClientObjectImp;

class VANTREL_API cVantrelClientObject {
 public:
  cVantrelClientObject();
  // Copies both members as they are (see the ownership note above).
  cVantrelClientObject(const cVantrelClientObject& other);
  cVantrelClientObject& operator=(const cVantrelClientObject& other);
  // Ends the session and destroys the implementation.
  virtual ~cVantrelClientObject();

  // Registers `clientName` with the service on this machine. `port` is the
  // service's client port; 0 means the environment variable
  // VANTREL_CLIENT_PORT, or 9010 when it is unset. A second call ends the
  // previous session (the service gets its farewell) and starts a new one.
  bool NETInitZ641(const char* clientName, unsigned short port);

  // Sends `data` to `address` ("client@host") and waits for the service's
  // acknowledgement.
  bool NETSendMessageZ1(const char* data, unsigned int length, const char* address);
  // Sends without asking for any response.
  bool NETSendMessageNoresponseZ1(const char* data, unsigned int length, const char* address);
  // Sends without waiting; the answer, named by `messageId`, arrives later on
  // the second channel (see NewMessageEvent).
  bool NETSendMessageNowaitZ1(long messageId, const char* data, unsigned int length, const char* address);
  // Sending to several destinations at once is not offered: sends nothing.
  bool NETSendMultiMessageZ1(const char* data, unsigned int length, const char* addressList);
  // Asks the service to copy a file; `data` holds the copy request.
  bool NETCopyFileZ1(long messageId, const char* data, unsigned int length, const char* host);

  // Blocks for the next incoming message and returns the whole record.
  const cVantrelMessage* NETWaitMessageX1();
  // The same wait, returning the record's data only.
  const char* NETWaitMessageX2();
  // Never blocks: the data of the next waiting message, or null.
  const char* NETFetchMessage();

  // This client's address with the service's network port ("recorder@lg01~9011").
  const char* NETWhoAmI();
  const char* NETLocalHostName();
  // -1 when the object was never initialised.
  int NETGetLastStatus();
  const char* NETGetLastErrorMessage();

  // Turning off ends every wait at once (a wait then returns null and the
  // session ends) and drops what arrives; turning on makes the queues usable again.
  bool NETTurnOn();
  bool NETTurnOff();
  // Ends the session: the service gets its farewell, waits return, the
  // connection closes and the reader thread is joined.
  void NETTerminate();

  // The result of the last NETInitZ641 (false before the first).
  bool Valid();

  // Called on the library's reader thread for each message on channel 0
  // (messages) and channel 2 (answers to no-wait sends) before it is queued.
  // Return true to queue it for the receive calls; return false to keep it out
  // of the queue, in which case the override owns `message` and deletes it.
  // The default queues channel 0 and drops channel 2. An override must be
  // thread-safe and quick, and its class must call NETTerminate() in its own
  // destructor so that the reader has stopped before the override goes away.
  virtual bool NewMessageEvent(cTypedMessageObject* message, short channel);

 private:
  cVantrelClientObjectImp* implementation_;
  bool valid_;
};

// Releases the library's process-wide client state. Call once, after the last
// client object is gone.
VANTREL_API void VantrelClientTerminate();

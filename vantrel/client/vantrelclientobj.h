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
// (false, null, the empty text) and NETGetLastStatus tells why, with one of the
// statuses of vantrel/message/wire.h:
//   kStatusOk              0      no error
//   kStatusNotInitialised  15005  not initialised (or no longer), or a wait that returned no message
//   kStatusSendFailed      15007  the frame could not be sent to the service
//   kStatusAckError        15008  the service's acknowledgement was not positive
// Every operation that checks the status sets it as it begins, so a status
// describes the object's most recent operation. The log (VANTREL_LOG_LEVEL,
// VANTREL_LOG_FILE) has the details. Data passed to a send is copied before the
// call returns; the caller keeps it.
//
// Time limits: the connection to the service is bounded by the setting
// SocketCommunicationTimeout of Vantrel.ini (default 10000 ms) for connecting
// and for writing one frame; an acknowledged send also waits for its answer
// (see NETSendMessageZ1). Waits for incoming messages have no limit.
#include "vantrel/base/export.h"
#include "vantrel/message/packmsg.h"
#include "vantrel/message/typedmsg.h"
#include "vantrel/message/wire.h"

class cVantrelClientObjectImp;

// One registered client of the local Vantrel service, the application's handle
// on the bus.
//
// Ownership: the application owns the object; the object owns its
// implementation (connection, reader thread, queues). Do not copy an object
// that has been initialised: the copy shares the implementation and both
// would destroy it.
// Threads: one application thread at a time may call NETInitZ641, NETSendMessageZ1,
// the waits and fetches, NETWhoAmI and NETLocalHostName. NETSendMessageNoresponseZ1,
// NETSendMessageNowaitZ1, NETCopyFileZ1, NETTurnOff, NETTurnOn, NETTerminate and
// NETGetLastStatus may be called from any thread meanwhile; NETTurnOff and NETTerminate
// are the way to end another thread's wait. NewMessageEvent runs on the
// library's reader thread.
class VANTREL_API cVantrelClientObject {
 public:
  // Not valid until NETInitZ641 succeeds. Allocates nothing and never blocks.
  cVantrelClientObject();
  // Copies both members as they are (see the ownership note above): only an
  // object that was never initialised may be copied.
  cVantrelClientObject(const cVantrelClientObject& other);
  cVantrelClientObject& operator=(const cVantrelClientObject& other);
  // Ends the session as NETTerminate does, blocking until the reader thread
  // has been joined, then destroys the implementation. A record returned by a
  // wait or fetch is destroyed with it.
  virtual ~cVantrelClientObject();

  // Registers `clientName` with the service on this machine and returns true
  // when the service accepted the greeting. `port` is the service's client port;
  // 0 means the environment variable VANTREL_CLIENT_PORT, or 9010 when it is
  // unset. Blocks while connecting and then until the service replies or closes
  // the connection. A second call first ends the previous session (the service
  // gets its farewell). A name longer than 255 bytes or holding a control
  // character, and with port 0 a VANTREL_CLIENT_PORT that is not a port, fail
  // at once without connecting: status kStatusNotInitialised, and
  // NETGetLastErrorMessage says why. On false the object is not valid: the other
  // operations fail with kStatusNotInitialised until a later NETInitZ641 succeeds.
  bool NETInitZ641(const char* clientName, unsigned short port);

  // Sends `length` bytes of `data` to `address` ("client@host") and waits for
  // the service's acknowledgement, up to the acknowledgement time-out: 60000 ms,
  // or the milliseconds in the environment variable
  // VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT when the object was initialised.
  // True only when the acknowledgement says wire::kDelivered. False with status
  // kStatusSendFailed when the frame could not be sent, kStatusAckError when
  // another answer took the acknowledgement's place, and kStatusOk when the
  // time-out passed (a not-delivered answer comes as a message, see
  // NETWaitMessageX1) or the address lacks a client or host part (nothing is
  // sent then).
  bool NETSendMessageZ1(const char* data, unsigned int length, const char* address);
  // Sends without asking for any response: true once the frame has been
  // written to the service's connection (blocking at most for that). False with
  // kStatusSendFailed when it could not be, and with kStatusOk for an address
  // without client or host part. Whether the message reaches its client is not
  // reported.
  bool NETSendMessageNoresponseZ1(const char* data, unsigned int length, const char* address);
  // Sends without waiting for the answer: true once the frame has been written
  // to the service's connection, with the same failures as
  // NETSendMessageNoresponseZ1. A wire::kNotDelivered answer carrying
  // `messageId` arrives later as a message (see NewMessageEvent and the receive
  // calls); a delivered answer goes to the acknowledgement channel, which the
  // application does not read.
  bool NETSendMessageNowaitZ1(long messageId, const char* data, unsigned int length, const char* address);
  // Sending to several destinations at once is not offered: sends nothing and
  // returns true, or false when NETInitZ641 was never called.
  bool NETSendMultiMessageZ1(const char* data, unsigned int length, const char* addressList);
  // Asks the service to copy a file to or from `host`; `data` holds the copy
  // request, a CAssociativeArray text with wire::kCopyLocalFile and
  // wire::kCopyRemoteFile. True once the request has been written to the
  // service's connection; false with kStatusSendFailed when it could not be, or
  // with kStatusOk for an empty host. The result arrives later as a message:
  // wire::kDelivered carrying `messageId`, whose data names wire::kCopyState
  // and wire::kCopyFileName, or wire::kNotDelivered when the link to the host
  // broke.
  bool NETCopyFileZ1(long messageId, const char* data, unsigned int length, const char* host);

  // Blocks, with no time limit, for the next incoming message and returns the
  // whole record. The record belongs to this object and stays valid until this
  // object's next wait, fetch, NETInitZ641 or destruction. Null, with
  // kStatusNotInitialised, when the object is not valid or when the wait was
  // ended by NETTurnOff, NETTerminate or the service closing the connection;
  // the object is then no longer valid. A record that arrived malformed is
  // returned with isValid() false.
  const cVantrelMessage* NETWaitMessageX1();
  // The same wait, returning the record's data only (valid as long as the
  // record, see NETWaitMessageX1); null on the same failures.
  const char* NETWaitMessageX2();
  // Never blocks: the data of the next waiting message, or null when none
  // waits (status kStatusOk) or the object is not valid (kStatusNotInitialised).
  // The data belongs to this object, as for NETWaitMessageX1.
  const char* NETFetchMessage();

  // This client's address with the service's network port
  // ("recorder@lg01~9011"), itself a valid destination. The text belongs to
  // this object and does not change until the next NETInitZ641. The empty text,
  // with kStatusNotInitialised, when the object is not valid. Never blocks.
  const char* NETWhoAmI();
  // The host name the service gave in its greeting reply; destinations on this
  // host travel in the local forms of wire.h. Belongs to this object, as for
  // NETWhoAmI; the empty text with kStatusNotInitialised when not valid.
  const char* NETLocalHostName();
  // The status left by this object's most recent operation (see the table at
  // the top), or -1 when NETInitZ641 was never called. Never blocks; any thread.
  int NETGetLastStatus();
  // Why the last NETInitZ641 failed before it reached the service (a bad client
  // name or VANTREL_CLIENT_PORT); otherwise the empty text (the status and the
  // log say what failed). Null before the first NETInitZ641. Belongs to this
  // object until its next NETInitZ641. Never blocks.
  const char* NETGetLastErrorMessage();

  // Turning off ends every wait at once (the wait returns null and, as after any
  // ended wait, the object is no longer valid) and drops what arrives until
  // NETTurnOn makes the queues usable again.
  // Both return true, or false when NETInitZ641 was never called. Never block.
  bool NETTurnOn();
  bool NETTurnOff();
  // Ends the session: the service gets its farewell, waits return null, the
  // connection closes and the reader thread is joined, which this call blocks
  // for (called from NewMessageEvent, it does not wait for its own thread).
  // Calling it again, or on an object that is not valid, is harmless.
  void NETTerminate();

  // True after a successful NETInitZ641, false before the first call and after
  // a failed one. It keeps the result of the last NETInitZ641: a session that
  // ended later shows in the operations' kStatusNotInitialised, not here.
  bool Valid();

  // Called on the library's reader thread for each message on channel
  // wire::kChannelMessages and wire::kChannelNoWaitAnswers, before it is
  // queued. Return true to queue it for the receive calls; return false to keep
  // it out of the queue, in which case the override owns `message` and deletes
  // it. The default queues channel kChannelMessages and deletes the rest. The
  // override may end its own session - NETTerminate, NETInitZ641 again, or
  // deleting its object - the old connection's reader then stops once the hook
  // has returned (a message the hook accepted is dropped with it). An
  // override must be thread-safe and quick (the reader reads nothing meanwhile),
  // and its class must call NETTerminate() in its own destructor so that the
  // reader has stopped before the override goes away. An exception thrown by
  // it is logged and the message queued.
  virtual bool NewMessageEvent(cTypedMessageObject* message, short channel);

 private:
  cVantrelClientObjectImp* implementation_;
  bool valid_;
};

// Releases the library's process-wide client state (the clients collection).
// Call once, after the last client object is gone, from any thread; calling it
// while client objects still run is not supported. Never blocks, never throws.
VANTREL_API void VantrelClientTerminate();

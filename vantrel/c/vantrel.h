#ifndef VANTREL_C_VANTREL_H
#define VANTREL_C_VANTREL_H
/* The C interface of the Vantrel message bus, for C programs and for bindings
   of other languages.

   A program makes a client handle, registers it under a client name with the
   service on its host, then sends to "client@host" addresses and receives
   messages by waiting, by polling or through a callback:

     vantrel_client* bus = vantrel_client_new();
     if (bus && vantrel_client_init(bus, "recorder", 0) == VANTREL_OK) {
       vantrel_client_send(bus, "player@lg02", "hello", 5);
       const vantrel_message* message;
       if (vantrel_client_wait(bus, 1000, &message) == VANTREL_OK)
         printf("%s sent %.*s\n", message->from_client, (int)message->length, message->data);
     }
     vantrel_client_free(bus);

   Results. Every call that can fail returns a status (enum vantrel_status);
   no call lets a C++ exception out, none aborts the process on bad input.
   Null handles and null pointers where a text or an out-pointer is required
   give VANTREL_INVALID_ARGUMENT. vantrel_client_last_status gives the status
   of a handle's most recent call, and vantrel_client_error_text the reason in
   words where one is known (the service's refusal, a rejected client name).

   Memory. Texts and data passed in are copied before the call returns; the
   caller keeps them. Texts returned belong to the library, as stated per call;
   the caller never frees them.

   Threads. One thread at a time may call vantrel_client_init,
   vantrel_client_send, vantrel_client_wait, vantrel_client_fetch,
   vantrel_client_whoami and vantrel_client_local_host on one handle. Any
   thread may call vantrel_client_notify, vantrel_client_post,
   vantrel_client_copy, vantrel_client_turn_off, vantrel_client_turn_on,
   vantrel_client_terminate, vantrel_client_last_status and
   vantrel_client_error_text meanwhile; vantrel_client_turn_off and
   vantrel_client_terminate are the way to end another thread's wait.
   vantrel_client_init and vantrel_client_free run alone on
   their handle; vantrel_client_free is called once.
   Different handles are independent. */
#include <stddef.h>
#include <stdint.h>

#include "vantrel/base/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The results of the calls. The three large numbers are the statuses of the
   C++ client API, with the same meaning. */
enum vantrel_status {
  VANTREL_OK = 0,
  /* A wait or an acknowledged send ran out of time. The handle stays usable;
     an answer that comes later arrives as a message. */
  VANTREL_TIMEOUT = 1,
  /* vantrel_client_fetch: no message waits. */
  VANTREL_NO_MESSAGE = 2,
  /* A null handle or pointer, an address that is not "client@host", an empty
     host or path, or data longer than 4 GiB. Nothing was sent. */
  VANTREL_INVALID_ARGUMENT = 3,
  /* Memory ran out, or the library met a fault of its own (logged). */
  VANTREL_INTERNAL_ERROR = 4,
  /* The handle is not registered, or its session ended: terminated, turned
     off during a wait, or the service closed the connection. */
  VANTREL_NOT_INITIALISED = 15005,
  /* The message could not be written to the service's connection. */
  VANTREL_SEND_FAILED = 15007,
  /* The service answered that the message was not delivered;
     vantrel_client_error_text has its reason. */
  VANTREL_NOT_DELIVERED = 15008
};

/* A client of the service on this host. Opaque; made by vantrel_client_new,
   released by vantrel_client_free. */
typedef struct vantrel_client vantrel_client;

/* One received message. Every pointer points into memory of the handle that
   returned it and stays valid until that handle's next wait, fetch, init or
   free, whichever comes first; the caller never frees any of it. Texts end
   with a zero. */
typedef struct vantrel_message {
  uint32_t id;           /* the sender's message id (0 for plain sends) */
  short type;            /* 2-5 (or their local forms) for messages; 102 delivered, 103 not delivered */
  short subtype;         /* the channel it came on: 0 messages */
  int queue_type;        /* 0 client, 1 synchronous, 2 asynchronous answer */
  const char* from_host; /* the sender's host; never null */
  const char* from_client;
  const char* to_host;
  const char* to_client;
  const char* data;      /* `length` bytes, followed by a zero byte not counted; never null */
  uint32_t length;       /* bytes of data */
  int copy_state;        /* for a file-copy result: its completion state (0 done); otherwise -1 */
  const char* copy_path; /* for a file-copy result: the failing path, "" when none; otherwise null */
} vantrel_message;

/* Completion states of a file copy (vantrel_message.copy_state). */
enum vantrel_copy_state {
  VANTREL_COPY_DONE = 0,
  VANTREL_COPY_OPEN_FAILED = 1, /* the source or the destination could not be opened */
  VANTREL_COPY_CLOSE_FAILED = 2,
  VANTREL_COPY_READ_FAILED = 3,
  VANTREL_COPY_WRITE_FAILED = 4,
  VANTREL_COPY_STOPPED = 5,   /* stopped between hosts, or the peer reported a failure */
  VANTREL_COPY_SAME_FILE = 6, /* refused: source and destination are one file */
  VANTREL_COPY_DENIED = 7     /* the requesting user may not read or write the file */
};

/* Called for each incoming message on the library's reader thread, before the
   message is queued for wait and fetch. `message` and everything it points to
   are valid only during the call. Return nonzero to queue the message as well,
   zero to drop it. The callback must be quick (the reader reads nothing
   meanwhile) and must not call vantrel_client_free or vantrel_client_init on
   its own handle; it may call the send calls and vantrel_client_terminate. */
typedef int (*vantrel_message_callback)(void* user, const vantrel_message* message);

/* The running library's version, "major.minor.patch": a static text, never
   null. Any thread. */
VANTREL_API const char* vantrel_version(void);

/* A text for `status` in words: static, never null. Any thread. */
VANTREL_API const char* vantrel_status_text(int status);

/* A new, unregistered handle, owned by the caller until vantrel_client_free;
   null only when memory ran out. Never blocks. */
VANTREL_API vantrel_client* vantrel_client_new(void);

/* Ends the session as vantrel_client_terminate does, waits for the reader
   thread, and releases the handle and every message it returned. Null is
   allowed. Blocks until the reader has stopped. */
VANTREL_API void vantrel_client_free(vantrel_client* client);

/* Registers `name` with the service whose clients port is `port` (0: the
   environment variable VANTREL_CLIENT_PORT, else 9010). Blocks while
   connecting and until the service replies. A handle registered before ends
   that session first. VANTREL_OK, or VANTREL_NOT_INITIALISED when the service
   cannot be reached or refuses, or the name (at most 255 bytes, no control
   characters) or VANTREL_CLIENT_PORT is bad: vantrel_client_error_text says
   why. */
VANTREL_API int vantrel_client_init(vantrel_client* client, const char* name, unsigned short port);

/* Sets the callback and its user pointer (null `callback`: none), for this and
   later sessions of the handle. Any thread, at any time: a call already running
   on the reader finishes with the previous pair. VANTREL_OK. */
VANTREL_API int vantrel_client_set_callback(vantrel_client* client, vantrel_message_callback callback, void* user);

/* This client's address as others reach it ("recorder@lg01~9011"), itself a
   valid destination; the host name the service gave. Owned by the handle,
   unchanged until its next init or free. The empty text when not registered
   (or for a null handle). Never block. */
VANTREL_API const char* vantrel_client_whoami(vantrel_client* client);
VANTREL_API const char* vantrel_client_local_host(vantrel_client* client);

/* Acknowledged send: `length` bytes of `data` (null allowed when `length` is
   0) to `address`, waiting for the service's answer, up to 60 s (or the
   milliseconds in VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT). VANTREL_OK once
   delivered; VANTREL_NOT_DELIVERED, VANTREL_SEND_FAILED, VANTREL_TIMEOUT,
   VANTREL_NOT_INITIALISED or VANTREL_INVALID_ARGUMENT otherwise. */
VANTREL_API int vantrel_client_send(vantrel_client* client, const char* address, const void* data, size_t length);

/* Send without any response: VANTREL_OK once written to the service's
   connection; whether it reaches its client is not reported. */
VANTREL_API int vantrel_client_notify(vantrel_client* client, const char* address, const void* data, size_t length);

/* Send without waiting: VANTREL_OK once written. If the message cannot be
   delivered, a message of type 103 carrying `id` arrives later. */
VANTREL_API int vantrel_client_post(vantrel_client* client, uint32_t id, const char* address, const void* data,
                                    size_t length);

/* Asks the service to copy `local_path` (on this host) to `remote_path` on
   `host` (which may carry "~port"). VANTREL_OK once the request is written;
   the result arrives later as a message carrying `id`: type 102 with
   copy_state and copy_path set, or type 103 when the link to the host broke.
   A relative `local_path` is taken from the caller's working folder. */
VANTREL_API int vantrel_client_copy(vantrel_client* client, uint32_t id, const char* local_path, const char* host,
                                    const char* remote_path);

/* Waits up to `timeout_ms` milliseconds (negative: no limit) for the next
   message and sets *message to it (see vantrel_message for its lifetime).
   VANTREL_OK; VANTREL_TIMEOUT (the handle stays usable); or
   VANTREL_NOT_INITIALISED when the session ended or was never started. On
   anything but VANTREL_OK *message is null. */
VANTREL_API int vantrel_client_wait(vantrel_client* client, long timeout_ms, const vantrel_message** message);

/* Never blocks: the next waiting message, as for vantrel_client_wait, or
   VANTREL_NO_MESSAGE when none waits. */
VANTREL_API int vantrel_client_fetch(vantrel_client* client, const vantrel_message** message);

/* Turning off ends every wait at once (the session then ends, as after any
   ended wait) and drops what arrives until turned on. VANTREL_OK, or
   VANTREL_NOT_INITIALISED when never registered. Never block. */
VANTREL_API int vantrel_client_turn_off(vantrel_client* client);
VANTREL_API int vantrel_client_turn_on(vantrel_client* client);

/* Ends the session: the service gets its farewell, waits return
   VANTREL_NOT_INITIALISED, the reader thread is joined (blocks for that,
   unless called from the callback). Harmless when repeated or unregistered. */
VANTREL_API void vantrel_client_terminate(vantrel_client* client);

/* The status of the handle's most recent call that sets one; -1 before the
   first vantrel_client_init or for a null handle. Never blocks. */
VANTREL_API int vantrel_client_last_status(vantrel_client* client);

/* Copies the reason of the handle's last failure in words into `buffer`
   (`size` bytes, always zero-terminated when `size` > 0) and returns the
   text's full length, which may exceed `size` - 1; 0 when none is known. */
VANTREL_API size_t vantrel_client_error_text(vantrel_client* client, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif

/* The C interface's promises, from C: capi_test <clients port>; exit 1 on a failed check. */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vantrel/c/vantrel.h"
#include "vantrel/version.h"

static int failures = 0;
static void Check(int ok, const char* what, int line) {
  if (!ok) fprintf(stderr, "capi_test.c:%d: check failed: %s\n", line, what);
  failures += !ok;
}
#define CHECK(condition) Check((condition) != 0, #condition, __LINE__)

static atomic_int seen;
static int Count(void* user, const vantrel_message* message) {
  (void)message;
  atomic_fetch_add((atomic_int*)user, 1);
  return 1;
}

static const vantrel_message* Next(vantrel_client* bus) {
  const vantrel_message* message = NULL;
  CHECK(vantrel_client_wait(bus, 10000, &message) == VANTREL_OK && message != NULL);
  return message;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const unsigned short port = (unsigned short)atoi(argv[1]);
  const vantrel_message* message = (const vantrel_message*)1;
  char text[256];

  /* Null handles and pointers are refused, never dereferenced. */
  CHECK(strcmp(vantrel_version(), VANTREL_VERSION_STRING) == 0);
  CHECK(vantrel_client_send(NULL, "a@b", "x", 1) == VANTREL_INVALID_ARGUMENT);
  CHECK(vantrel_client_wait(NULL, 0, &message) == VANTREL_INVALID_ARGUMENT && message == NULL);
  CHECK(vantrel_client_last_status(NULL) == -1 && strcmp(vantrel_client_whoami(NULL), "") == 0);
  vantrel_client_free(NULL);

  vantrel_client* bus = vantrel_client_new();
  CHECK(vantrel_client_last_status(bus) == -1);
  CHECK(vantrel_client_wait(bus, 0, &message) == VANTREL_NOT_INITIALISED);
  CHECK(vantrel_client_init(bus, "bad\nname", port) == VANTREL_NOT_INITIALISED);
  CHECK(vantrel_client_error_text(bus, text, sizeof text) > 0 && strstr(text, "refused") != NULL);
  CHECK(vantrel_client_set_callback(bus, Count, &seen) == VANTREL_OK);
  CHECK(vantrel_client_init(bus, "c-api", port) == VANTREL_OK);
  char self[300];
  snprintf(self, sizeof self, "%s", vantrel_client_whoami(bus));
  CHECK(strncmp(self, "c-api@", 6) == 0);

  /* A message stays intact while later ones arrive, until the next wait. */
  CHECK(vantrel_client_send(bus, self, "first", 5) == VANTREL_OK);
  const vantrel_message* first = Next(bus);
  /* The service acknowledges once the message went out to us, and our reader
     takes frames in order: the callback has seen it when the send returns. */
  CHECK(vantrel_client_send(bus, self, "second\0x", 8) == VANTREL_OK && atomic_load(&seen) == 2);
  CHECK(first->length == 5 && memcmp(first->data, "first", 6) == 0 && strcmp(first->from_client, "c-api") == 0);
  CHECK(first->copy_state == -1 && first->copy_path == NULL);
  const vantrel_message* second = Next(bus);
  CHECK(second->length == 8 && memcmp(second->data, "second\0x", 9) == 0);

  /* Time-outs and an empty queue leave the handle usable. */
  CHECK(vantrel_client_wait(bus, 20, &message) == VANTREL_TIMEOUT && message == NULL);
  CHECK(vantrel_client_fetch(bus, &message) == VANTREL_NO_MESSAGE && message == NULL);

  /* Bad input sends nothing; a reason longer than the buffer is cut, not overrun. */
  CHECK(vantrel_client_send(bus, "no-host@", "x", 1) == VANTREL_INVALID_ARGUMENT);
  CHECK(vantrel_client_error_text(bus, text, 4) > 3 && strlen(text) == 3);

  /* After terminate every call reports the ended session. */
  vantrel_client_terminate(bus);
  CHECK(vantrel_client_wait(bus, -1, &message) == VANTREL_NOT_INITIALISED);
  CHECK(vantrel_client_last_status(bus) == VANTREL_NOT_INITIALISED);
  vantrel_client_terminate(bus);
  vantrel_client_free(bus);
  return failures == 0 ? 0 : 1;
}

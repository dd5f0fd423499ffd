/* The C interface's promises, from a C program: capi_test <clients port> <folder>.
   Prints each failed check and exits 1 when any failed. */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

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

/* Watches `counter` until it reaches `target`, for at most ten seconds (the
   reader thread gets there within milliseconds; plain C11 has no sleep). */
static int Reaches(atomic_int* counter, int target) {
  struct timespec start, now;
  timespec_get(&start, TIME_UTC);
  do {
    if (atomic_load(counter) >= target) return 1;
    timespec_get(&now, TIME_UTC);
  } while (now.tv_sec - start.tv_sec < 10);
  return 0;
}

static const vantrel_message* Next(vantrel_client* bus) {
  const vantrel_message* message = NULL;
  int status = vantrel_client_wait(bus, 10000, &message);
  CHECK(status == VANTREL_OK && message != NULL);
  return message;
}

/* The next message carrying `id`; others (late answers) are skipped. */
static const vantrel_message* Answer(vantrel_client* bus, uint32_t id) {
  static const vantrel_message none = {0, 0, 0, 0, "", "", "", "", "", 0, -1, NULL};
  const vantrel_message* message;
  while ((message = Next(bus)) != NULL)
    if (message->id == id) return message;
  return &none;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
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
  CHECK(vantrel_client_notify(bus, self, "second\0x", 8) == VANTREL_OK);
  CHECK(Reaches(&seen, 2));
  CHECK(first->length == 5 && memcmp(first->data, "first", 6) == 0 && strcmp(first->from_client, "c-api") == 0);
  CHECK(first->copy_state == -1 && first->copy_path == NULL);
  const vantrel_message* second = Next(bus);
  CHECK(second->length == 8 && memcmp(second->data, "second\0x", 9) == 0);

  /* Time-outs and an empty queue leave the handle usable. */
  CHECK(vantrel_client_wait(bus, 20, &message) == VANTREL_TIMEOUT && message == NULL);
  CHECK(vantrel_client_fetch(bus, &message) == VANTREL_NO_MESSAGE && message == NULL);

  /* Failures: status, reason, nothing sent. */
  char nobody[300];
  snprintf(nobody, sizeof nobody, "nobody@%s", vantrel_client_local_host(bus));
  CHECK(vantrel_client_post(bus, 77, nobody, "x", 1) == VANTREL_OK);
  CHECK(Answer(bus, 77)->type == 103);
  /* Refused at once by services that answer on the acknowledgement channel,
     after the acknowledgement time-out by those that do not. */
  const int status = vantrel_client_send(bus, nobody, "x", 1);
  CHECK(status == VANTREL_NOT_DELIVERED || status == VANTREL_TIMEOUT);
  CHECK(vantrel_client_error_text(bus, text, 4) > 3 && strlen(text) == 3);
  CHECK(vantrel_client_send(bus, "no-host@", "x", 1) == VANTREL_INVALID_ARGUMENT);
  CHECK(vantrel_client_post(bus, -1, self, "x", 1) == VANTREL_INVALID_ARGUMENT);

  /* Copy results are read without parsing. */
  char destination[512];
  snprintf(destination, sizeof destination, "%s/copied.txt", argv[2]);
  CHECK(vantrel_client_copy(bus, 6, "/nonexistent/file", vantrel_client_local_host(bus), destination) == VANTREL_OK);
  message = Answer(bus, 6);
  CHECK(message->type == 102 && message->copy_state == VANTREL_COPY_OPEN_FAILED);
  CHECK(message->copy_path != NULL && strstr(message->copy_path, "/nonexistent/file") != NULL);

  /* After terminate every call reports the ended session. */
  vantrel_client_terminate(bus);
  CHECK(vantrel_client_wait(bus, -1, &message) == VANTREL_NOT_INITIALISED);
  CHECK(vantrel_client_notify(bus, self, "x", 1) == VANTREL_NOT_INITIALISED);
  CHECK(vantrel_client_last_status(bus) == VANTREL_NOT_INITIALISED);
  vantrel_client_terminate(bus);
  vantrel_client_free(bus);
  return failures == 0 ? 0 : 1;
}

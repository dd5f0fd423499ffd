#pragma once
// Orderly stop requests from outside the process: SIGINT and SIGTERM here, the
// console control handler (Ctrl+C, Ctrl+Break, close, shutdown) on Windows.
//
// A program that wants them calls BlockStopRequests at the top of main, before
// it starts any thread, and later waits for one with WaitForStopRequest on the
// thread that is to stop it. Requests are taken by that waiting thread, never by
// an asynchronous handler, so stopping may take locks and join threads.

namespace vantrel::platform {

// Keeps stop requests from ending the process or interrupting any thread started
// after the call, and turns a write to a closed connection into an error result
// instead of a signal. Call once, on the main thread, before other threads run.
void BlockStopRequests();

// What WaitForStopRequest returns for a request to reopen the log file (after
// it was moved away for rotation): SIGHUP here; Windows has no such request.
inline constexpr int kReopenRequest = -1;

// Blocks until a stop is requested and returns the request's number (the signal
// number here), or until the log file is to be reopened (kReopenRequest).
// Requests that arrive before the call are not lost.
int WaitForStopRequest();

}  // namespace vantrel::platform

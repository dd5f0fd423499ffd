#pragma once
// Telling the system's service manager how the service is doing, when a
// service manager started this process and listens. Every call is harmless
// (does nothing, returns at once) when none does, so programs and tests call
// them unconditionally. Thread-safe; none blocks longer than one local
// datagram send.

namespace vantrel::platform {

// The service accepts work (both its ports listen). True when a service
// manager was told.
bool gNotifyServiceReady();
// The service is stopping in order. True when a service manager was told.
bool gNotifyServiceStopping();
// How often the service manager expects a sign of life, in milliseconds; 0
// when it expects none. The service should call gNotifyServiceAlive at about
// half this interval.
long gServiceWatchdogIntervalMs();
// A sign of life for the service manager's watchdog. True when one was told.
bool gNotifyServiceAlive();

}  // namespace vantrel::platform

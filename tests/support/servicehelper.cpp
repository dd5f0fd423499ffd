#include "tests/support/servicehelper.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/base/platform/hostinfo.h"
#include "vantrel/base/socket/socketoptions.h"

namespace vantrel::test {

std::string LocalHostName() {
  std::string name = RQPGetLocalHostName();
  return name.empty() ? "host" : name;
}

bool TestClient::NewMessageEvent(cTypedMessageObject* message, short channel) {
  if (channel != wire::kChannelMessages) return cVantrelClientObject::NewMessageEvent(message, channel);
  std::unique_ptr<cVantrelMessage> record(NVSTmo2Ttm(message));
  delete message;
  if (record == nullptr) return false;
  std::lock_guard<std::mutex> guard(mutex_);
  received_.push_back(*record);
  return false;
}

std::optional<cVantrelMessage> TestClient::next(std::chrono::milliseconds timeout) {
  std::optional<cVantrelMessage> record;
  WaitUntil(
      [&] {
        std::lock_guard<std::mutex> guard(mutex_);
        if (received_.empty()) return false;
        record = received_.front();
        received_.pop_front();
        return true;
      },
      timeout);
  return record;
}

std::string TestClient::nextText(std::chrono::milliseconds timeout) {
  const auto record = next(timeout);
  if (!record) return "<none>";
  return std::to_string(record->getType()) + " " + (record->getData() ? record->getData() : "");
}

std::size_t TestClient::pending() {
  std::lock_guard<std::mutex> guard(mutex_);
  return received_.size();
}

bool RawLink::connectClient(unsigned short clientsPort) {
  return socket_.ConnectLocal(clientsPort, gSocketOptionsNet());
}

bool RawLink::connectPeer(unsigned short netPort, const std::string& host, short versionMarker) {
  return socket_.Connect("127.0.0.1", netPort, gSocketOptionsNet()) &&
         send(wire::kHostName, versionMarker, host + '\0');
}

bool RawLink::greet(const std::string& name) {
  std::string greeting(wire::kGreetingSize, '\0');
  name.copy(&greeting[wire::kGreetingNameOffset], wire::kGreetingSize - wire::kGreetingNameOffset - 1);
  return send(wire::kGreeting, 0, greeting);
}

bool RawLink::send(short type, short subtype, const std::string& bytes) {
  return socket_.SendTypedMessageZ2(type, subtype, bytes.data(), static_cast<unsigned>(bytes.size()));
}

bool RawLink::send(const cVantrelMessage& record, short subtype) {
  return socket_.SendTypedMessageZ2(record.getType(), subtype, record.getPackedBuf(), record.getPackedBufLen());
}

std::optional<cFrame> RawLink::next(std::chrono::milliseconds timeout) {
  auto read = std::async(std::launch::async, [this]() -> std::optional<cFrame> {
    cFrame frame = ReadFrame(socket_);
    if (!frame.ok) return std::nullopt;
    return frame;
  });
  if (read.wait_for(timeout) != std::future_status::ready) {
    // Closing wakes the blocked read, so the future can be left.
    socket_.CloseSocket();
    read.wait();
    return std::nullopt;
  }
  auto frame = read.get();
  closed_ = !frame.has_value();
  return frame;
}

InProcessService::InProcessService(const std::string& extra)
    : CVantrelClass(cVantrelIni(nEnvSettings::gLoadTableFromText(
          "SocketCommunicationTimeout = 10000\nSocketClosedReactivationTimeout_debug = 0\n"
          "NetIsActiveImplemented_debug = 1\nCertificatesPath = /none\nMonitorPort = 0\n" +
              extra,
          "test.ini"))) {
  SetReportToLogOnly(true);
}

}  // namespace vantrel::test

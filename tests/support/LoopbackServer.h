// A service of raw bytes on the loopback interface: answers every connection with what the test
// says, good HTTP or not.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

/// What the service does with a connection.
struct Answer {
  Answer(std::string text) : bytes(std::move(text)) {}  // NOLINT(google-explicit-constructor)
  Answer(const char* text) : bytes(text) {}             // NOLINT(google-explicit-constructor)

  std::string bytes;                    // none: the service never answers
  std::chrono::milliseconds pause{0};   // after each byte
  std::size_t blanks = 0;               // sent after the bytes
  bool resets = false;                  // ends by a reset of the connection
  std::size_t requestBytes = SIZE_MAX;  // at most so many are read before
};

class LoopbackServer {
 public:
  /// Listens on `port`, or on any free one for 0.
  explicit LoopbackServer(Answer answer, std::uint16_t port = 0) : answer_(std::move(answer)) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    const int yes = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener_, any, size) != 0 || listen(listener_, 8) != 0 ||
        getsockname(listener_, any, &size) != 0) {
      close(listener_);
      throw std::runtime_error("the port cannot be listened on");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~LoopbackServer() {
    stopped_ = true;
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::string address() const { return "http://127.0.0.1:" + std::to_string(port_); }

  void setAnswer(Answer answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }
  /// Bytes of the last request, headers and body.
  std::string lastRequest() {
    const std::lock_guard lock(mutex_);
    return request_;
  }
  int requestCount() {
    const std::lock_guard lock(mutex_);
    return count_;
  }

  /// A reply of status 200 with `body`.
  static std::string ok(const std::string& body) { return reply("200 OK", body); }
  static std::string reply(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
  }

 private:
  void serve() {
    for (int connection = 0; (connection = accept(listener_, nullptr, nullptr)) >= 0;
         close(connection)) {
      std::unique_lock lock(mutex_);
      const Answer answer = answer_;
      lock.unlock();
      std::string request = receive(connection, answer.requestBytes);
      lock.lock();
      request_ = std::move(request);
      ++count_;
      lock.unlock();
      // Until the client goes away.
      char byte = 0;
      while (answer.bytes.empty() && !answer.resets && !stopped_ &&
             recv(connection, &byte, 1, MSG_DONTWAIT) != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      bool isOpen = true;
      const std::size_t piece = answer.pause.count() > 0 ? 1 : 65536;
      for (std::size_t sent = 0; isOpen && !stopped_ && sent < answer.bytes.size(); sent += piece) {
        isOpen = sendAll(connection, answer.bytes.substr(sent, piece));
        std::this_thread::sleep_for(answer.pause);
      }
      const std::string blanks(std::min<std::size_t>(answer.blanks, 65536), ' ');
      for (std::size_t sent = 0; isOpen && sent < answer.blanks; sent += blanks.size()) {
        isOpen = sendAll(connection, blanks);
      }
      const linger atOnce{1, 0};
      if (answer.resets) setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
  }

  /// Waits until all of it is taken; false where the client is gone.
  static bool sendAll(int connection, const std::string& bytes) {
    return send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  /// Headers, and as many bytes of body as they announce; `most` bytes of it all.
  static std::string receive(int connection, std::size_t most) {
    std::string request;
    std::size_t expected = most;
    char buffer[4096];
    while (request.size() < expected) {
      const ssize_t count =
          recv(connection, buffer, std::min(sizeof buffer, expected - request.size()), 0);
      if (count <= 0) break;
      request.append(buffer, static_cast<std::size_t>(count));
      const std::size_t end = request.find("\r\n\r\n");
      const std::size_t length = request.find("Content-Length: ");
      if (end != std::string::npos && length < end) {
        expected = std::min(most, end + 4 + std::stoul(request.substr(length + 16)));
      }
    }
    return request;
  }

  Answer answer_;
  std::string request_;
  int count_ = 0;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopped_ = false;
  std::mutex mutex_;
  std::thread thread_;
};

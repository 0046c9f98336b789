// A TCP server on the loopback interface that sends every client the bytes the test chose, valid
// HTTP or not.
#pragma once

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#if defined(_WIN32)
using Socket = SOCKET;
using BufferSize = int;
inline constexpr int kNoSignal = 0;
inline void closeSocket(Socket socket) {
  closesocket(socket);
}
inline void startSockets() {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
}
#else
using Socket = int;
using BufferSize = std::size_t;
inline constexpr int kNoSignal = MSG_NOSIGNAL;
inline void closeSocket(Socket socket) {
  close(socket);
}
inline void startSockets() {}
#endif

/// How the server answers a connection.
struct Answer {
  Answer(std::string text) : bytes(std::move(text)) {}  // NOLINT(google-explicit-constructor)
  Answer(const char* text) : bytes(text) {}             // NOLINT(google-explicit-constructor)

  std::string bytes;                       ///< If empty, the server never answers.
  std::chrono::milliseconds pause{0};      ///< After each byte; 0 sends all bytes at once.
  std::size_t trailingSpaces = 0;          ///< Number of spaces sent after the bytes.
  bool resets = false;                     ///< Whether the connection ends with a reset.
  std::size_t maxRequestBytes = SIZE_MAX;  ///< The server answers after reading this many bytes.
};

class LoopbackServer {
 public:
  /// Listens on `port`; 0 means any free port.
  explicit LoopbackServer(Answer answer, std::uint16_t port = 0) : answer_(std::move(answer)) {
    startSockets();
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    setOption(listener_, SO_REUSEADDR, 1);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const genericAddress = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener_, genericAddress, size) != 0 || listen(listener_, 8) != 0 ||
        getsockname(listener_, genericAddress, &size) != 0) {
      closeSocket(listener_);
      throw std::runtime_error("cannot listen on the port");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~LoopbackServer() {
    stopped_ = true;
    thread_.join();
    closeSocket(listener_);
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
    while (!stopped_) {
      if (!isReadable(listener_)) continue;
      const Socket connection = accept(listener_, nullptr, nullptr);
      std::unique_lock lock(mutex_);
      const Answer answer = answer_;
      lock.unlock();
      std::string request = receive(connection, answer.maxRequestBytes);
      lock.lock();
      request_ = std::move(request);
      ++count_;
      lock.unlock();
      // An empty answer: wait until the client closes the connection.
      char byte = 0;
      while (answer.bytes.empty() && !answer.resets && !stopped_ &&
             (!isReadable(connection) || recv(connection, &byte, 1, 0) > 0)) {
      }
      bool isOpen = true;
      const std::size_t chunk = answer.pause.count() > 0 ? 1 : 65536;
      for (std::size_t sent = 0; isOpen && !stopped_ && sent < answer.bytes.size(); sent += chunk) {
        isOpen = sendAll(connection, answer.bytes.substr(sent, chunk));
        std::this_thread::sleep_for(answer.pause);
      }
      const std::string spaces(std::min<std::size_t>(answer.trailingSpaces, 65536), ' ');
      for (std::size_t sent = 0; isOpen && sent < answer.trailingSpaces; sent += spaces.size()) {
        isOpen = sendAll(connection, spaces);
      }
      if (answer.resets) setOption(connection, SO_LINGER, linger{1, 0});
      closeSocket(connection);
    }
  }

  template <class Option>
  static void setOption(Socket socket, int name, const Option& value) {
    setsockopt(socket, SOL_SOCKET, name, reinterpret_cast<const char*>(&value), sizeof value);
  }

  /// Waits up to 10 ms. Returns whether there is data, a new connection or the end of one.
  static bool isReadable(Socket socket) {
    fd_set sockets;
    FD_ZERO(&sockets);
    FD_SET(socket, &sockets);
    timeval limit{0, 10000};
    return select(static_cast<int>(socket) + 1, &sockets, nullptr, nullptr, &limit) > 0;
  }

  /// Blocks until all bytes are sent. Returns false if the client closed the connection.
  static bool sendAll(Socket connection, const std::string& bytes) {
    return std::cmp_equal(
        send(connection, bytes.data(), static_cast<BufferSize>(bytes.size()), kNoSignal),
        bytes.size());
  }

  /// Reads the headers and a body of the announced length, in total at most `maxBytes` bytes.
  static std::string receive(Socket connection, std::size_t maxBytes) {
    std::string request;
    std::size_t expected = maxBytes;
    char buffer[4096];
    while (request.size() < expected) {
      const auto wanted = std::min(sizeof buffer, expected - request.size());
      const auto count = recv(connection, buffer, static_cast<BufferSize>(wanted), 0);
      if (count <= 0) break;
      request.append(buffer, static_cast<std::size_t>(count));
      const std::size_t end = request.find("\r\n\r\n");
      const std::size_t length = request.find("Content-Length: ");
      if (end != std::string::npos && length < end) {
        expected = std::min(maxBytes, end + 4 + std::stoul(request.substr(length + 16)));
      }
    }
    return request;
  }

  Answer answer_;
  std::string request_;
  int count_ = 0;
  Socket listener_;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopped_ = false;
  std::mutex mutex_;
  std::thread thread_;
};

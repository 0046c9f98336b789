// A service of raw bytes on the loopback interface: answers every connection with what the test
// says, good HTTP or not.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

class LoopbackServer {
 public:
  /// Listens on `port`, or on any free one for 0.
  explicit LoopbackServer(std::string answer, std::uint16_t port = 0) : answer_(std::move(answer)) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    const int yes = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener_, any, size) != 0 || listen(listener_, 8) != 0 || getsockname(listener_, any, &size) != 0) {
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

  void setAnswer(std::string answer) {
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
      const int connection = accept(listener_, nullptr, nullptr);
      if (connection < 0) return;
      const std::string request = receive(connection);
      std::string answer;
      {
        const std::lock_guard lock(mutex_);
        request_ = request;
        ++count_;
        answer = answer_;
      }
      // An empty answer stands for a service that never gives one.
      while (answer.empty() && !stopped_ && recv(connection, nullptr, 0, MSG_PEEK) == 0) {
        char byte = 0;
        if (recv(connection, &byte, 1, MSG_DONTWAIT) == 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      for (std::size_t sent = 0; sent < answer.size();) {
        const ssize_t done = send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (done <= 0) break;
        sent += static_cast<std::size_t>(done);
      }
      close(connection);
    }
  }

  /// Headers, and as many bytes of body as they announce.
  static std::string receive(int connection) {
    std::string request;
    std::size_t expected = std::string::npos;
    char buffer[4096];
    while (request.size() < expected) {
      const ssize_t count = recv(connection, buffer, sizeof buffer, 0);
      if (count <= 0) break;
      request.append(buffer, static_cast<std::size_t>(count));
      const std::size_t end = request.find("\r\n\r\n");
      const std::size_t length = request.find("Content-Length: ");
      if (end != std::string::npos && length < end) {
        expected = end + 4 + std::stoul(request.substr(length + 16));
      }
    }
    return request;
  }

  std::string answer_;
  std::string request_;
  int count_ = 0;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopped_ = false;
  std::mutex mutex_;
  std::thread thread_;
};

#include "ServiceCheck.h"

#if !defined(_WIN32)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace vsa {
namespace {

bool isListening() {
#if defined(_WIN32)
  return true;
#else
  constexpr in_port_t kPort = 9555;  // fixed in the library
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return true;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // NOLINTNEXTLINE: this cast is how the interface of sockets is used
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const bool isConnected = connect(descriptor, generic, sizeof address) == 0;
  close(descriptor);
  return isConnected;
#endif
}

}  // namespace

std::string melServiceProblem() {
  if (isListening()) return "";
  return "the mel-spectrogram service on 127.0.0.1:9555 is not running: start it, for example "
         "with \"python3 examples/melservice/melservice.py\"";
}

}  // namespace vsa

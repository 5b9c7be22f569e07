#ifndef QM_OAP_TESTS_INBOUND_SENDER_H
#define QM_OAP_TESTS_INBOUND_SENDER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

// Plays the OAP server's side of an inbound connection: connects to the
// listener on 127.0.0.1, writes the document, half-closes and waits (at most
// five seconds) until the driver has read it and closed its end, so that the
// caller knows the document was taken. False when the connection could not
// be made or written.
inline bool SendInbound(int port, const std::string& document) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            send(fd, document.data(), document.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(document.size());
  if (ok) {
    shutdown(fd, SHUT_WR);
    pollfd closed{fd, POLLIN, 0};
    char sink[256];
    while (poll(&closed, 1, 5000) > 0 && recv(fd, sink, sizeof sink, 0) > 0) continue;
  }
  close(fd);
  return ok;
}

#endif

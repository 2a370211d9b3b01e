#include "tests/support/network_namespace.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <net/route.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace kinetrel::test {
namespace {

// A socket to give the kernel orders through.
class Orders {
 public:
  Orders() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~Orders() { ::close(socket_); }
  Orders(const Orders&) = delete;
  Orders& operator=(const Orders&) = delete;

  void Give(unsigned long order, void* argument, const char* what) const {
    if (::ioctl(socket_, order, argument) != 0 && errno != EEXIST) {
      throw std::runtime_error(std::string(what) + ": " + ::strerror(errno));
    }
  }

 private:
  int socket_;
};

sockaddr AddressOf(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, text, &address.sin_addr);
  sockaddr general;
  ::memcpy(&general, &address, sizeof general);
  return general;
}

// Through the loopback interface, so that a library finds it as it finds a network card.
void AddRoute(const Orders& orders, const char* to, const char* mask) {
  char loopback[] = "lo";
  rtentry route{};
  route.rt_dst = AddressOf(to);
  route.rt_genmask = AddressOf(mask);
  route.rt_flags = RTF_UP;
  route.rt_dev = loopback;
  orders.Give(SIOCADDRT, &route, "route");
}

}  // namespace

std::string EnterOwnNetwork() {
  static bool entered = false;
  if (entered) return "";
  // Without the right to make one, a user may still have it inside a user namespace.
  if (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    return std::string("no network namespace for this account: ") + ::strerror(errno);
  }
  entered = true;
  SetLoopback(true);
  return "";
}

void SetLoopback(bool up) {
  const Orders orders;
  ifreq interface {};
  ::strcpy(interface.ifr_name, "lo");
  interface.ifr_flags = up ? IFF_UP | IFF_LOOPBACK | IFF_MULTICAST : IFF_LOOPBACK;
  orders.Give(SIOCSIFFLAGS, &interface, "lo");
  if (!up) return;
  AddRoute(orders, "224.0.0.0", "240.0.0.0");
  AddRoute(orders, "0.0.0.0", "0.0.0.0");
}

}  // namespace kinetrel::test

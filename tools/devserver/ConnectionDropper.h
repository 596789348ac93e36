#pragma once

namespace httplib {
struct Request;
}

namespace kavelo {

// Hangs up on the client of a request that is being handled, without any answer, the way a proxy or a
// dying server does. The HTTP library hands handlers no socket, so the socket is found by its address
// pair among the process's descriptors and shut down; the library's own close follows as usual.
class ConnectionDropper {
  public:
    // False when the connection could not be found (it is then answered normally by the caller).
    static bool drop(const httplib::Request& request);
};

} // namespace kavelo

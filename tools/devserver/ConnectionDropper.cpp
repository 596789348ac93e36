#include "tools/devserver/ConnectionDropper.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <filesystem>
#include <netinet/in.h>
#include <sys/socket.h>

namespace kavelo {

namespace {

bool sameEndpoint(const sockaddr_storage& addr, const std::string& host, int port) {
    char text[INET6_ADDRSTRLEN] = {};
    if (addr.ss_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(&addr);
        inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
        return ntohs(in->sin_port) == port && host == text;
    }
    if (addr.ss_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&addr);
        inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
        return ntohs(in6->sin6_port) == port && host == text;
    }
    return false;
}

} // namespace

bool ConnectionDropper::drop(const httplib::Request& request) {
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        int fd = -1;
        try {
            fd = std::stoi(it->path().filename().string());
        } catch (const std::exception&) {
            continue;
        }
        sockaddr_storage local{};
        sockaddr_storage peer{};
        socklen_t localLength = sizeof local;
        socklen_t peerLength = sizeof peer;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
            continue;
        }
        if (sameEndpoint(local, request.local_addr, request.local_port) &&
            sameEndpoint(peer, request.remote_addr, request.remote_port)) {
            ::shutdown(fd, SHUT_RDWR);
            return true;
        }
    }
    return false;
}

} // namespace kavelo

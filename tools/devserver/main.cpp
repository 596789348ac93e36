#include "tools/devserver/DevServer.h"

#include <csignal>
#include <iostream>
#include <pthread.h>

using namespace kavelo;

int main(int argc, char** argv) {
    DevServerOptions options;
    try {
        options = DevServerOptions::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::invalid_argument& e) {
        std::cerr << "kavelo-devserver: " << e.what() << "\n";
        return 2;
    }
    if (options.showHelp) {
        std::cout << DevServerOptions::helpText();
        return 0;
    }

    // The stop signals are taken by sigwait below; every thread started from here on inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    try {
        DevServer server(options);
        int port = server.start();
        std::cout << "listening 127.0.0.1:" << port << std::endl;
        int received = 0;
        sigwait(&stopSignals, &received);
        server.stop();
    } catch (const std::exception& e) {
        std::cerr << "kavelo-devserver: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

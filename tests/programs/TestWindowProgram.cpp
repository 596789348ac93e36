// A small application window for the window-reading tests, on a bare X server with no window manager:
// it plays its own window manager's part too, adding itself to the root's stacking list and, with
// --active, making its last window the active one. One window per title, each above the one before; an
// empty title leaves that window without a name. Prints "pid PID" when done, then runs until killed.
// Usage: kavelo_test_window CLASS [--active] TITLE...
#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

xcb_atom_t intern(xcb_connection_t* c, const char* name) {
    auto* reply = xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, static_cast<uint16_t>(std::strlen(name)), name), nullptr);
    xcb_atom_t atom = reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
    std::free(reply);
    return atom;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s CLASS [--active] TITLE...\n", argv[0]);
        return 1;
    }
    std::string windowClass = argv[1];
    int first = 2;
    bool active = std::strcmp(argv[2], "--active") == 0;
    if (active) {
        ++first;
    }

    auto* c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c) != 0) {
        std::fprintf(stderr, "no X server\n");
        return 2;
    }
    auto* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    auto stacking = intern(c, "_NET_CLIENT_LIST_STACKING");
    xcb_window_t window = XCB_WINDOW_NONE;
    for (int i = first; i < argc; ++i) {
        std::string title = argv[i];
        window = xcb_generate_id(c);
        xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 200, 100, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
        uint32_t pid = static_cast<uint32_t>(getpid());
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, intern(c, "_NET_WM_PID"), XCB_ATOM_CARDINAL, 32,
                            1, &pid);
        if (!title.empty()) {
            xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, intern(c, "_NET_WM_NAME"),
                                intern(c, "UTF8_STRING"), 8, static_cast<uint32_t>(title.size()),
                                title.data());
        }
        std::string wmClass = windowClass + '\0' + windowClass + '\0';
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                            static_cast<uint32_t>(wmClass.size()), wmClass.data());
        xcb_map_window(c, window);
        xcb_change_property(c, XCB_PROP_MODE_APPEND, screen->root, stacking, XCB_ATOM_WINDOW, 32, 1, &window);
    }
    if (active && window != XCB_WINDOW_NONE) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, screen->root, intern(c, "_NET_ACTIVE_WINDOW"),
                            XCB_ATOM_WINDOW, 32, 1, &window);
    }
    // A round trip, so the properties are on the server before the test reads them.
    std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    std::printf("pid %d\n", static_cast<int>(getpid()));
    std::fflush(stdout);
    while (auto* event = xcb_wait_for_event(c)) {
        std::free(event);
    }
    xcb_disconnect(c);
    return 0;
}

#include "app/detection/EwmhWindowReader.h"

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kavelo {

struct EwmhWindowReader::Atoms {
    xcb_atom_t activeWindow = XCB_ATOM_NONE;
    xcb_atom_t clientListStacking = XCB_ATOM_NONE;
    xcb_atom_t clientList = XCB_ATOM_NONE;
    xcb_atom_t wmPid = XCB_ATOM_NONE;
    xcb_atom_t wmName = XCB_ATOM_NONE;
    xcb_atom_t utf8String = XCB_ATOM_NONE;
    xcb_atom_t windowType = XCB_ATOM_NONE;
    xcb_atom_t windowTypeNormal = XCB_ATOM_NONE;
};

namespace {

xcb_atom_t intern(xcb_connection_t* connection, const char* name) {
    auto cookie = xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(std::strlen(name)), name);
    auto* reply = xcb_intern_atom_reply(connection, cookie, nullptr);
    xcb_atom_t atom = reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
    std::free(reply);
    return atom;
}

struct PropertyReply {
    xcb_get_property_reply_t* reply = nullptr;
    ~PropertyReply() { std::free(reply); }
};

} // namespace

std::unique_ptr<EwmhWindowReader> EwmhWindowReader::connect(const std::string& display) {
    int screenNumber = 0;
    auto* connection = xcb_connect(display.empty() ? nullptr : display.c_str(), &screenNumber);
    if (connection == nullptr || xcb_connection_has_error(connection) != 0) {
        xcb_disconnect(connection);
        return nullptr;
    }
    auto iterator = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screenNumber && iterator.rem > 0; ++i) {
        xcb_screen_next(&iterator);
    }
    if (iterator.rem == 0) {
        xcb_disconnect(connection);
        return nullptr;
    }
    return std::unique_ptr<EwmhWindowReader>(new EwmhWindowReader(connection, iterator.data->root));
}

EwmhWindowReader::EwmhWindowReader(xcb_connection_t* connection, std::uint32_t root)
    : connection_(connection), root_(root), atoms_(std::make_unique<Atoms>()) {
    atoms_->activeWindow = intern(connection_, "_NET_ACTIVE_WINDOW");
    atoms_->clientListStacking = intern(connection_, "_NET_CLIENT_LIST_STACKING");
    atoms_->clientList = intern(connection_, "_NET_CLIENT_LIST");
    atoms_->wmPid = intern(connection_, "_NET_WM_PID");
    atoms_->wmName = intern(connection_, "_NET_WM_NAME");
    atoms_->utf8String = intern(connection_, "UTF8_STRING");
    atoms_->windowType = intern(connection_, "_NET_WM_WINDOW_TYPE");
    atoms_->windowTypeNormal = intern(connection_, "_NET_WM_WINDOW_TYPE_NORMAL");
}

EwmhWindowReader::~EwmhWindowReader() {
    xcb_disconnect(connection_);
}

std::vector<std::uint32_t> EwmhWindowReader::windowList(std::uint32_t window, std::uint32_t property) {
    if (property == XCB_ATOM_NONE || xcb_connection_has_error(connection_) != 0) {
        return {};
    }
    auto cookie = xcb_get_property(connection_, 0, window, property, XCB_ATOM_WINDOW, 0,
                                   static_cast<std::uint32_t>(maxWindows));
    PropertyReply p{xcb_get_property_reply(connection_, cookie, nullptr)};
    if (p.reply == nullptr || p.reply->type != XCB_ATOM_WINDOW || p.reply->format != 32) {
        return {};
    }
    auto count = static_cast<std::size_t>(xcb_get_property_value_length(p.reply)) / sizeof(std::uint32_t);
    const auto* values = static_cast<const std::uint32_t*>(xcb_get_property_value(p.reply));
    return {values, values + std::min(count, maxWindows)};
}

std::optional<std::string> EwmhWindowReader::text(std::uint32_t window, std::uint32_t property,
                                                  std::uint32_t type, std::size_t maxBytes) {
    if (property == XCB_ATOM_NONE || xcb_connection_has_error(connection_) != 0) {
        return std::nullopt;
    }
    auto cookie = xcb_get_property(connection_, 0, window, property, type, 0,
                                   static_cast<std::uint32_t>((maxBytes + 3) / 4));
    PropertyReply p{xcb_get_property_reply(connection_, cookie, nullptr)};
    if (p.reply == nullptr || p.reply->type != type || p.reply->format != 8) {
        return std::nullopt;
    }
    auto length = std::min(static_cast<std::size_t>(xcb_get_property_value_length(p.reply)), maxBytes);
    return std::string(static_cast<const char*>(xcb_get_property_value(p.reply)), length);
}

pid_t EwmhWindowReader::pidOf(std::uint32_t window) {
    if (atoms_->wmPid == XCB_ATOM_NONE || xcb_connection_has_error(connection_) != 0) {
        return 0;
    }
    auto cookie = xcb_get_property(connection_, 0, window, atoms_->wmPid, XCB_ATOM_CARDINAL, 0, 1);
    PropertyReply p{xcb_get_property_reply(connection_, cookie, nullptr)};
    if (p.reply == nullptr || p.reply->type != XCB_ATOM_CARDINAL || p.reply->format != 32 ||
        xcb_get_property_value_length(p.reply) < 4) {
        return 0;
    }
    std::uint32_t pid = 0;
    std::memcpy(&pid, xcb_get_property_value(p.reply), sizeof pid);
    return pid > 0 && pid < 1u << 22 ? static_cast<pid_t>(pid) : 0; // beyond the kernel's pid limit: garbage
}

bool EwmhWindowReader::isNormal(std::uint32_t window) {
    // Only ordinary application windows, as the layer-0 windows of a desktop: no docks, menus or tooltips.
    // A window without a type is normal by the EWMH rules.
    if (atoms_->windowType == XCB_ATOM_NONE) {
        return true;
    }
    auto cookie = xcb_get_property(connection_, 0, window, atoms_->windowType, XCB_ATOM_ATOM, 0, 16);
    PropertyReply p{xcb_get_property_reply(connection_, cookie, nullptr)};
    if (p.reply == nullptr || p.reply->type != XCB_ATOM_ATOM || p.reply->format != 32 ||
        xcb_get_property_value_length(p.reply) < 4) {
        return true;
    }
    std::uint32_t first = 0;
    std::memcpy(&first, xcb_get_property_value(p.reply), sizeof first);
    return first == atoms_->windowTypeNormal;
}

std::optional<EwmhWindowReader::ActiveWindow> EwmhWindowReader::activeWindow() {
    auto active = windowList(root_, atoms_->activeWindow);
    if (active.empty() || active.front() == XCB_WINDOW_NONE) {
        return std::nullopt;
    }
    ActiveWindow result;
    result.pid = pidOf(active.front());
    if (result.pid == 0) {
        return std::nullopt;
    }
    // WM_CLASS is "instance\0class\0".
    if (auto wmClass = text(active.front(), XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 256)) {
        auto split = wmClass->find('\0');
        if (split != std::string::npos) {
            auto rest = wmClass->substr(split + 1);
            result.windowClass = rest.substr(0, rest.find('\0'));
        }
    }
    return result;
}

std::vector<std::string> EwmhWindowReader::titlesOf(pid_t pid) {
    auto windows = windowList(root_, atoms_->clientListStacking); // bottom to top
    if (windows.empty()) {
        windows = windowList(root_, atoms_->clientList); // mapping order: a guess, newest last
    }
    std::vector<std::string> titles;
    for (auto it = windows.rbegin(); it != windows.rend(); ++it) {
        if (pid <= 0 || pidOf(*it) != pid || !isNormal(*it)) {
            continue;
        }
        auto title = text(*it, atoms_->wmName, atoms_->utf8String, maxTitleBytes);
        if (!title) {
            title = text(*it, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, maxTitleBytes);
        }
        titles.push_back(title.value_or(""));
    }
    return titles;
}

} // namespace kavelo

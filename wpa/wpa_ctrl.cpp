// Client of wpa_supplicant's control socket: one datagram socket per handle, bound to a path of
// its own under /tmp and connected to the supplicant's socket for an interface.
#include "wpa_ctrl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct wpa_ctrl {
    int s;
    sockaddr_un local;
    sockaddr_un dest;
};

namespace {

// Gives each handle of this process a distinct local path; not guarded against concurrent opens.
unsigned counter = 0;

constexpr size_t kPathCap = sizeof(sockaddr_un::sun_path); // 108
constexpr int kReplyWaitS = 2;

// Whether the socket becomes readable within the time-out.
int readable(const wpa_ctrl *ctrl, int seconds) {
    fd_set rfds;
    FD_ZERO(&rfds);
    FD_SET(ctrl->s, &rfds);
    timeval tv = {seconds, 0};
    select(ctrl->s + 1, &rfds, nullptr, nullptr, &tv);
    return FD_ISSET(ctrl->s, &rfds) ? 1 : 0;
}

// ATTACH or DETACH: the server answers exactly "OK\n" when it agrees.
int wpa_ctrl_attach_helper(wpa_ctrl *ctrl, bool attach) {
    char buf[10];
    size_t len = sizeof buf;
    int ret = wpa_ctrl_request(ctrl, attach ? "ATTACH" : "DETACH", 6, buf, &len, nullptr);
    if (ret < 0)
        return ret;
    return len == 3 && memcmp(buf, "OK\n", 3) == 0 ? 0 : -1;
}

} // namespace

extern "C" {

wpa_ctrl *wpa_ctrl_open(const char *ctrl_path) {
    auto *ctrl = static_cast<wpa_ctrl *>(calloc(1, sizeof(wpa_ctrl)));
    if (ctrl == nullptr)
        return nullptr;
    ctrl->s = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (ctrl->s < 0) {
        free(ctrl);
        return nullptr;
    }
    ctrl->local.sun_family = AF_UNIX;
    int n = snprintf(ctrl->local.sun_path, kPathCap, "/tmp/wpa_ctrl_%d-%d",
                     static_cast<int>(getpid()), static_cast<int>(counter++));
    if (n < 0 || static_cast<size_t>(n) >= kPathCap) {
        close(ctrl->s);
        free(ctrl);
        return nullptr;
    }
    if (bind(ctrl->s, reinterpret_cast<sockaddr *>(&ctrl->local), sizeof ctrl->local) < 0) {
        close(ctrl->s);
        free(ctrl);
        return nullptr;
    }
    ctrl->dest.sun_family = AF_UNIX;
    size_t len = strlen(ctrl_path);
    if (len >= kPathCap) {
        // The bound socket file stays behind on this path, as it always has.
        close(ctrl->s);
        free(ctrl);
        return nullptr;
    }
    memcpy(ctrl->dest.sun_path, ctrl_path, len + 1);
    if (connect(ctrl->s, reinterpret_cast<sockaddr *>(&ctrl->dest), sizeof ctrl->dest) < 0) {
        close(ctrl->s);
        unlink(ctrl->local.sun_path);
        free(ctrl);
        return nullptr;
    }
    return ctrl;
}

void wpa_ctrl_close(wpa_ctrl *ctrl) {
    unlink(ctrl->local.sun_path);
    close(ctrl->s);
    free(ctrl);
}

int wpa_ctrl_request(wpa_ctrl *ctrl, const char *cmd, size_t cmd_len, char *reply,
                     size_t *reply_len, void (*msg_cb)(char *msg, size_t len)) {
    if (send(ctrl->s, cmd, cmd_len, 0) < 0)
        return -1;
    for (;;) {
        // Each event that arrives first restarts the wait.
        if (!readable(ctrl, kReplyWaitS))
            return -2;
        ssize_t res = recv(ctrl->s, reply, *reply_len, 0);
        if (res < 0)
            return static_cast<int>(res);
        if (res > 0 && reply[0] == '<') {
            if (msg_cb != nullptr) {
                // A datagram that filled the buffer loses its last byte to the terminator.
                size_t len = static_cast<size_t>(res) == *reply_len ? *reply_len - 1
                                                                    : static_cast<size_t>(res);
                reply[len] = '\0';
                msg_cb(reply, len);
            }
            continue;
        }
        *reply_len = static_cast<size_t>(res);
        return 0;
    }
}

int wpa_ctrl_attach(wpa_ctrl *ctrl) {
    return wpa_ctrl_attach_helper(ctrl, true);
}

int wpa_ctrl_detach(wpa_ctrl *ctrl) {
    return wpa_ctrl_attach_helper(ctrl, false);
}

int wpa_ctrl_recv(wpa_ctrl *ctrl, char *reply, size_t *reply_len) {
    ssize_t res = recv(ctrl->s, reply, *reply_len, 0);
    if (res < 0)
        return static_cast<int>(res);
    *reply_len = static_cast<size_t>(res);
    return 0;
}

int wpa_ctrl_pending(wpa_ctrl *ctrl) {
    return readable(ctrl, 0);
}

int wpa_ctrl_pending_timeout(wpa_ctrl *ctrl, int timeout_s) {
    return readable(ctrl, timeout_s);
}

int wpa_ctrl_get_fd(wpa_ctrl *ctrl) {
    return ctrl->s;
}

} // extern "C"

/* wpa_ctrl: client of wpa_supplicant's control interface, the datagram protocol it offers on a
 * Unix-domain socket per interface in its control directory (on the device
 * "/var/run/wpa_supplicant/wlan0"). The calls carry wpa_supplicant's own client names, so a
 * program written against its client code links against this library unchanged.
 *
 * Each handle binds a socket of its own at "/tmp/wpa_ctrl_<pid>-<n>", n counting the opens of
 * the process. Replies are not terminated. Unsolicited events (after wpa_ctrl_attach) are
 * datagrams that begin with '<', a message level in angle brackets, then the event text.
 * Nothing here logs; results are 0 for success and negative for failure unless said otherwise.
 * This header compiles as C99 and as C++.
 */
#ifndef WPA_CTRL_H
#define WPA_CTRL_H

#include <stddef.h>

#include "qmtnm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

struct wpa_ctrl;

/* Connects to the server socket at ctrl_path (shorter than 108 characters). Null on any
 * failure. */
QMTNM_API struct wpa_ctrl *wpa_ctrl_open(const char *ctrl_path);

/* Removes the handle's own socket file, closes the socket and frees the handle. */
QMTNM_API void wpa_ctrl_close(struct wpa_ctrl *ctrl);

/* Sends cmd (cmd_len bytes) and waits for the reply, at most 2 seconds after the command or
 * after the last event. Events that arrive first are given to msg_cb (if not null) as
 * terminated text; *reply_len is the reply buffer's size on entry and the reply's length on
 * return. 0; -1 if sending failed; -2 on time-out; the receive's negative result. */
QMTNM_API int wpa_ctrl_request(struct wpa_ctrl *ctrl, const char *cmd, size_t cmd_len, char *reply,
                               size_t *reply_len, void (*msg_cb)(char *msg, size_t len));

/* Registers the handle as an event monitor (ATTACH), or unregisters it (DETACH): 0 when the
 * server answered exactly "OK\n", -1 on any other answer, or wpa_ctrl_request's failure. */
QMTNM_API int wpa_ctrl_attach(struct wpa_ctrl *ctrl);
QMTNM_API int wpa_ctrl_detach(struct wpa_ctrl *ctrl);

/* Receives one datagram (an event, after attaching) of at most *reply_len bytes, without
 * waiting; *reply_len becomes its length. */
QMTNM_API int wpa_ctrl_recv(struct wpa_ctrl *ctrl, char *reply, size_t *reply_len);

/* 1 if a datagram is waiting, else 0; does not block. */
QMTNM_API int wpa_ctrl_pending(struct wpa_ctrl *ctrl);

/* 1 if a datagram arrives within timeout_s seconds, else 0. */
QMTNM_API int wpa_ctrl_pending_timeout(struct wpa_ctrl *ctrl, int timeout_s);

/* The handle's socket descriptor, for a caller's own poll or select. */
QMTNM_API int wpa_ctrl_get_fd(struct wpa_ctrl *ctrl);

#ifdef __cplusplus
}
#endif

#endif /* WPA_CTRL_H */

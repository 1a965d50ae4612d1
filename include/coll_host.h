/*
 * coll_host.h - the host side of the platform services that libcoll uses.
 *
 * On its own platform the library talks to windows, the clipboard and the
 * initialisation file of the operating system. Where those do not exist the
 * library provides stand-ins, and the host program reaches them here: it
 * creates windows that receive the advice message, reads and writes the
 * clipboard text, and chooses the initialisation file. On Windows the same
 * functions work on the system's own windows, clipboard and profile file, so
 * that one host program (and the library's tests) runs on both.
 */
#ifndef COLL_HOST_H
#define COLL_HOST_H

#include "coll.h"
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A window procedure: called synchronously, in the sending thread, for every
 * message sent to the window; its result is the send's result. It may call
 * any library function. */
typedef intptr_t (*CollWindowProc)(uint32_t window, uint32_t message, uintptr_t wParam, intptr_t lParam,
                                   void *context);

/* A new window whose messages go to proc; never 0, and never with the upper
 * 16 bits 0xFFFF. 0 when proc is null or no window can be made. On Windows it
 * is a message-only window and the value is its HWND (32 significant bits);
 * what the library sends to it runs proc in the sending thread there too. */
COLL_EXPORT uint32_t COLLAPI collHostCreateWindow(CollWindowProc proc, void *context);
/* 1 when the window existed (it is gone now), else 0. */
COLL_EXPORT uint32_t COLLAPI collHostDestroyWindow(uint32_t window);
/* The message number registered for name: the same number in 0xC000..0xFFFF
 * for names equal without regard to case; 0 for a null or empty name. */
COLL_EXPORT uint32_t COLLAPI collHostRegisterMessage(const char *name);

/* The window that the library sees as the active one (0 for none); returns 1.
 * On Windows the system's active window counts until the host calls this;
 * a value that names no window is kept as it is, and the clipboard that the
 * library opens for it then has no owner. */
COLL_EXPORT uint32_t COLLAPI collHostSetActiveWindow(uint32_t window);
/* Opens the clipboard for the host: 1, or 0 when it is already open. */
COLL_EXPORT uint32_t COLLAPI collHostOpenClipboard(uint32_t window);
/* 1 when the clipboard was open. */
COLL_EXPORT uint32_t COLLAPI collHostCloseClipboard(void);
/* Replaces the clipboard's text (null empties it): 1, or 0 while it is open. */
COLL_EXPORT uint32_t COLLAPI collHostSetClipboardText(const char *text);
/* The text's length + 1, copying at most size - 1 bytes and a zero; 0 when
 * there is no text. Nothing is copied when buffer is null or size is 0. */
COLL_EXPORT uint32_t COLLAPI collHostGetClipboardText(char *buffer, uint32_t size);

/* The full path of the file used in place of "COLL.INI"; null or "" restores
 * the default ($XDG_CONFIG_HOME/COLL.INI, or $HOME/.config/COLL.INI; on
 * Windows "COLL.INI", which the system looks for in the Windows directory).
 * Returns 1 (0 on Windows when the path cannot be copied). */
COLL_EXPORT uint32_t COLLAPI collHostSetProfilePath(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* COLL_HOST_H */

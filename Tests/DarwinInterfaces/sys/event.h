// See README.md in the folder above.
#pragma once

#include <cstdint>
#include <ctime>

struct kevent {
  std::uintptr_t ident;
  std::int16_t filter;
  std::uint16_t flags;
  std::uint32_t fflags;
  std::intptr_t data;
  void* udata;
};
#define EV_SET(kevp, a, b, c, d, e, f)    \
  do {                                    \
    struct kevent* stillow_kevp = (kevp); \
    stillow_kevp->ident = (a);            \
    stillow_kevp->filter = (b);           \
    stillow_kevp->flags = (c);            \
    stillow_kevp->fflags = (d);           \
    stillow_kevp->data = (e);             \
    stillow_kevp->udata = (f);            \
  } while (0)
#define EVFILT_TIMER (-7)
#define EVFILT_USER (-10)
#define EV_ADD 0x0001
#define EV_DELETE 0x0002
#define EV_ONESHOT 0x0010
#define EV_CLEAR 0x0020
#define NOTE_TRIGGER 0x01000000
#define NOTE_ABSOLUTE 0x00000008
#define NOTE_CRITICAL 0x00000020
#define NOTE_MACH_CONTINUOUS_TIME 0x00000080
#define NOTE_MACHTIME 0x00000100

extern "C" {
int kqueue(void);
int kevent(int kq, const struct kevent* changelist, int nchanges, struct kevent* eventlist,
           int nevents, const struct timespec* timeout);
}

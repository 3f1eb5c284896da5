// See README.md beside this file.
#pragma once

#include_next <fcntl.h>

#define O_EVTONLY 0x00008000
#define F_FULLFSYNC 51

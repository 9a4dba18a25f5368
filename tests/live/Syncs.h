// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Whoever waits for the disk in this program comes here instead of to the C library: it is counted,
// and nobody waits. To be included once in a program.
#pragma once

#include <unistd.h>

inline int syncs = 0;

extern "C" __attribute__( ( visibility( "default" ) ) ) int fdatasync( int ) {
   ++syncs;
   return 0;
}
extern "C" __attribute__( ( visibility( "default" ) ) ) int fsync( int ) {
   ++syncs;
   return 0;
}

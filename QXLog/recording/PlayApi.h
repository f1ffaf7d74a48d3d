// What tests reach of the play API beyond QXLog/QXLogPlay.h.
#ifndef QXLOG_RECORDING_PLAYAPI_H_
#define QXLOG_RECORDING_PLAYAPI_H_

#include "QXLog/QXLogPlay.h"

namespace qxlog::recording {

// Frees a play without reporting anything, as a process that dies leaves it:
// its file stays for the next run.
void discardPlayForTesting(QXLogPlay* play);

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_PLAYAPI_H_

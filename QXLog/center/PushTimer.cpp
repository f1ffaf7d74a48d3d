// The push timer.
#include "QXLog/QXLogCenter.h"

void QXLogCenter::startTime(int32_t) {}

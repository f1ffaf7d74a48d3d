// Server settings.
#include "QXLog/QXLogCenter.h"

void QXLogCenter::getLogServerInfo() {}

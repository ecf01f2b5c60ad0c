// Everything libKelvo offers, in one include.
#pragma once

#include "BacktraceCpp.h"
#include "DebugCpp.h"
#include "DirNodeCpp.h"
#include "ExceptionCpp.h"
#include "FileLockCpp.h"
#include "FmtUtilCpp.h"
#include "FmtraceCpp.h"
#include "KelvoBase.h"
#include "LockingCpp.h"
#include "NetNs.h"
#include "PluginCpp.h"
#include "ThreadCpp.h"
#include "Timeout.h"
#include "TypeNameCpp.h"
#include "UtilCpp.h"

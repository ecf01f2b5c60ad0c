// Everything libKelvo offers, in one include.
#pragma once

#include "BacktraceCpp.h"
#include "DebugCpp.h"
#include "DisplayPointerCpp.h"
#include "ExceptionCpp.h"
#include "FmtUtilCpp.h"
#include "FmtraceCpp.h"
#include "ForkHandlerCpp.h"
#include "KelvoBase.h"
#include "LibeventFactoryCpp.h"
#include "LockingCpp.h"
#include "PlatformCpp.h"
#include "ThreadCpp.h"
#include "Timeout.h"
#include "TimerWheelCpp.h"
#include "TypeNameCpp.h"

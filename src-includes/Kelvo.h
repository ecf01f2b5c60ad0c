// Everything libKelvo offers, in one include.
#pragma once

#include "BacktraceCpp.h"
#include "ConstStringCache.h"
#include "DebugCpp.h"
#include "ExceptionCpp.h"
#include "FmtUtilCpp.h"
#include "FmtraceCpp.h"
#include "HashMixCpp.h"
#include "IntrusiveBookmarkLinkedList.h"
#include "IntrusiveLinkedListBase.h"
#include "KelvoBase.h"
#include "LockingCpp.h"
#include "RandomCpp.h"
#include "ThreadCpp.h"
#include "Timeout.h"
#include "TypeNameCpp.h"

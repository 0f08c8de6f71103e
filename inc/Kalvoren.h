/// @file
/// The whole library.
#ifndef KALVOREN_KALVOREN_H
#define KALVOREN_KALVOREN_H

#include "KAssert.h"
#include "KDebug.h"
#include "KDirectory.h"
#include "KEntry.h"
#include "KFile.h"
#include "KIPC.h"
#include "KLib.h"
#include "KList.h"
#include "KLocale.h"
#include "KMem.h"
#include "KMessage.h"
#include "KNet.h"
#include "KPath.h"
#include "KPropertyList.h"
#include "KQueue.h"
#include "KString.h"
#include "KSystem.h"
#include "KThread.h"
#include "KTime.h"
#include "KTypes.h"

#endif  // KALVOREN_KALVOREN_H

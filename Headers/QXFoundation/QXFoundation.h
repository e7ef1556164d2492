// QXFoundation.h - the library's public headers.
#pragma once

#include <QXFoundation/QXBinaryPlistRecord.h>
#include <QXFoundation/QXBinaryPlistTrailer.h>
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXErrorReporter.h>
#include <QXFoundation/QXFileSizeFormatter.h>
#include <QXFoundation/QXFoundationNSErrorAdditions.h>
#include <QXFoundation/QXHexFormatter.h>
#include <QXFoundation/QXHexNumberFormatter.h>
#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXRemoteFileHandle.h>
#include <QXFoundation/QXRemoteFileHandleConnectionDelegate.h>
#include <QXFoundation/QXStringAdditions.h>
#include <QXFoundation/QXSystemVersion.h>
#include <QXFoundation/QXUIDPropertyList.h>
#include <QXFoundation/QXChecksum.h>
#include <QXFoundation/QXExplode.h>
#include <QXFoundation/QXPBZXDecode.h>
#include <QXFoundation/QXThread.h>
#include <QXFoundation/QXUnshrink.h>
#include <QXFoundation/QXRingBuffer.h>
#include <QXFoundation/QXSlidingWindow.h>
#include <QXFoundation/QXFileHandleInputStream.h>
#include <QXFoundation/QXFileHandleOutputStream.h>
#include <QXFoundation/QXInputStream.h>
#include <QXFoundation/QXDecompressor.h>

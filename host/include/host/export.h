#pragma once

#include <QtGlobal>

#if defined(KvoHost_EXPORTS)
#define KVO_HOST_EXPORT Q_DECL_EXPORT
#else
#define KVO_HOST_EXPORT Q_DECL_IMPORT
#endif

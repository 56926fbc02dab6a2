#pragma once

#include <QtGlobal>

#if defined(KvoCore_EXPORTS)
#define KVO_CORE_EXPORT Q_DECL_EXPORT
#else
#define KVO_CORE_EXPORT Q_DECL_IMPORT
#endif

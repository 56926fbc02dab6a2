#pragma once

#include <QtGlobal>

#if defined(KvoRenderPasses_EXPORTS)
#define KVO_RENDERPASSES_EXPORT Q_DECL_EXPORT
#else
#define KVO_RENDERPASSES_EXPORT Q_DECL_IMPORT
#endif

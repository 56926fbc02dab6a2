#pragma once

#include <QtGlobal>

#if defined(KvoGL_EXPORTS)
#define KVO_GL_EXPORT Q_DECL_EXPORT
#else
#define KVO_GL_EXPORT Q_DECL_IMPORT
#endif

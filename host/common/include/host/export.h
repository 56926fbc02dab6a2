#pragma once

#include <QtGlobal>

// One per library of the host's side.

#if defined(KvoPipeline_EXPORTS)
#define KVO_PIPELINE_EXPORT Q_DECL_EXPORT
#else
#define KVO_PIPELINE_EXPORT Q_DECL_IMPORT
#endif

#if defined(KvoImages_EXPORTS)
#define KVO_IMAGES_EXPORT Q_DECL_EXPORT
#else
#define KVO_IMAGES_EXPORT Q_DECL_IMPORT
#endif

#if defined(KvoScene_EXPORTS)
#define KVO_SCENE_EXPORT Q_DECL_EXPORT
#else
#define KVO_SCENE_EXPORT Q_DECL_IMPORT
#endif

#if defined(KvoHeadless_EXPORTS)
#define KVO_HEADLESS_EXPORT Q_DECL_EXPORT
#else
#define KVO_HEADLESS_EXPORT Q_DECL_IMPORT
#endif

#if defined(KvoWidgets_EXPORTS)
#define KVO_WIDGETS_EXPORT Q_DECL_EXPORT
#else
#define KVO_WIDGETS_EXPORT Q_DECL_IMPORT
#endif

#if defined(KvoQuick_EXPORTS)
#define KVO_QUICK_EXPORT Q_DECL_EXPORT
#else
#define KVO_QUICK_EXPORT Q_DECL_IMPORT
#endif

#if defined(KvoVtk_EXPORTS)
#define KVO_VTK_EXPORT Q_DECL_EXPORT
#else
#define KVO_VTK_EXPORT Q_DECL_IMPORT
#endif

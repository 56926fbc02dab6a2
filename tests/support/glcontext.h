#pragma once

#include <QString>

namespace Brevane::Kvo::Test {

/// An OpenGL context without a surface, through EGL. Any number of them may exist at once.
class GLContext
{
public:
    struct Options
    {
        int major = 3;
        int minor = 2;
        bool core = true;
        bool debug = true;
        bool es = false; ///< OpenGL ES instead, which the library does not run on.
        const GLContext *share = nullptr;
    };

    GLContext();
    explicit GLContext(const Options &options);
    /// Destroys the context; when it is current, no context is afterwards.
    ~GLContext();
    GLContext(const GLContext &) = delete;
    GLContext &operator=(const GLContext &) = delete;

    bool isValid() const { return _context != nullptr; }
    /// Why there is none.
    QString error() const { return _error; }
    bool makeCurrent();
    bool isCurrent() const;
    static void doneCurrent();

private:
    void *_context = nullptr;
    bool _debugReady = false;
    QString _error;
};

/// In its scope GL errors and error messages of the driver count instead of failing the test.
class ExpectedGLErrors
{
public:
    ExpectedGLErrors();
    /// Also clears GL's error flag.
    ~ExpectedGLErrors();
    ExpectedGLErrors(const ExpectedGLErrors &) = delete;
    ExpectedGLErrors &operator=(const ExpectedGLErrors &) = delete;

    int count() const;
};

} // namespace Brevane::Kvo::Test

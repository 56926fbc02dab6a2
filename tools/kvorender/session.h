#pragma once

#include "gl/shaderfailurelistener.h"
#include "host/headlesscontext.h"

#include <QString>
#include <QStringList>

#include <memory>

/// The program's GL context, and what the driver has to say about what happens in it.
class Session
{
public:
    Session() = default;
    /// Destroy everything that lives in the context before.
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    /// Makes the context. \a debug: report OpenGL errors as they happen.
    bool open(bool debug, QString *error);
    /// Shader programs that failed and OpenGL errors since the last call. Each has been printed.
    QStringList takeFailures();

private:
    std::unique_ptr<Brevane::Kvo::HeadlessContext> _context;
    std::unique_ptr<Brevane::Kvo::ShaderFailureListener> _listener;
};

#pragma once

#include "support/glcalls.h"
#include "support/glcontext.h"

#include <gl/glinfo.h>
#include <gl/shaderfailurelistener.h>

#include <gtest/gtest.h>

namespace Brevane::Kvo::Test {

/// Fixture of all tests with GL. A binary has one context, current at the start of each test, with
/// the GL state of a new context. A test fails on GL errors, on pool references that it left, and on
/// GL objects that it made and nobody knows any more; the binary fails when, after the device context
/// is released, anything generated was not deleted.
class GLTest : public ::testing::Test
{
protected:
    GLTest();
    void SetUp() override;
    void TearDown() override;

    /// The context of the binary.
    static GLContext &context();

    /// A test that leaves pool references on purpose says so.
    void expectLeakedReferences() { _leakedReferencesExpected = true; }

private:
    /// What is alive, without what the library caches on purpose.
    struct Objects
    {
        int programs = 0; ///< And shaders.
        int framebuffers = 0;
        int textures = 0;
        int buffers = 0;
        int vertexArrays = 0;
        int others = 0;
        int givenUp = 0;
        int unknownDeletions = 0;
    };
    static Objects liveObjects();

    // What a shader that failed was: a test that wants one to fail reads it between its own lines.
    const ShaderFailureListener _shaderFailures;
    Objects _before;
    bool _leakedReferencesExpected = false;
};

/// Sets the GL state of a new context, as far as anything here touches it.
void resetGLState();

} // namespace Brevane::Kvo::Test

/// Skips the running test, naming what is missing.
#define KVO_REQUIRE_EXTENSION(name)                                                                                    \
    do {                                                                                                               \
        if (!::Brevane::Kvo::hasGLExtension(name))                                                                     \
            GTEST_SKIP() << "missing extension: " << name;                                                             \
    } while (false)

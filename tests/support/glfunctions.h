#pragma once

/// The GL entry points that the library and its tests call, without their "gl". The call recorder
/// wraps these; GlFunctionList tests that nothing in the source tree calls one that is missing here.
// clang-format off
#define KVO_GL_FUNCTIONS(X)                                                                                            \
    X(ActiveTexture) X(AttachShader) X(BeginQuery) X(BindAttribLocation) X(BindBuffer) X(BindBufferBase)               \
    X(BindBufferRange) X(BindFragDataLocation) X(BindFramebuffer) X(BindImageTexture) X(BindRenderbuffer)              \
    X(BindSampler) X(BindTexture) X(BindVertexArray) X(BlendColor) X(BlendEquation) X(BlendEquationSeparate)           \
    X(BlendEquationSeparatei) X(BlendFunc) X(BlendFuncSeparate) X(BlendFuncSeparatei) X(BlendFunci) X(BlitFramebuffer) \
    X(BufferData) X(BufferStorage) X(BufferSubData) X(CheckFramebufferStatus) X(ClampColor) X(Clear) X(ClearBufferfi)  \
    X(ClearBufferfv) X(ClearBufferiv) X(ClearBufferuiv) X(ClearColor) X(ClearDepth) X(ClearStencil) X(ClearTexImage)   \
    X(ClientWaitSync) X(ClipControl) X(ColorMask) X(ColorMaski) X(CompileShader) X(CompressedTexImage2D)               \
    X(CopyBufferSubData) X(CopyImageSubData) X(CopyTexImage2D) X(CopyTexSubImage2D) X(CopyTexSubImage3D)               \
    X(CreateProgram) X(CreateShader) X(CullFace) X(DebugMessageCallback) X(DebugMessageControl) X(DebugMessageInsert)  \
    X(DeleteBuffers) X(DeleteFramebuffers) X(DeleteProgram) X(DeleteQueries) X(DeleteRenderbuffers) X(DeleteSamplers)  \
    X(DeleteShader) X(DeleteSync) X(DeleteTextures) X(DeleteVertexArrays) X(DepthFunc) X(DepthMask) X(DepthRange)      \
    X(DepthRangeIndexed) X(DetachShader) X(Disable) X(DisableVertexAttribArray) X(Disablei) X(DispatchCompute)         \
    X(DrawArrays) X(DrawArraysIndirect) X(DrawArraysInstanced) X(DrawArraysInstancedBaseInstance) X(DrawBuffer)        \
    X(DrawBuffers) X(DrawElements) X(DrawElementsBaseVertex) X(DrawElementsIndirect) X(DrawElementsInstanced)          \
    X(DrawElementsInstancedBaseInstance) X(DrawElementsInstancedBaseVertex)                                            \
    X(DrawElementsInstancedBaseVertexBaseInstance) X(DrawRangeElements) X(DrawRangeElementsBaseVertex) X(Enable)       \
    X(EnableVertexAttribArray) X(Enablei) X(EndQuery) X(FenceSync) X(Finish) X(Flush) X(FlushMappedBufferRange)        \
    X(FramebufferRenderbuffer) X(FramebufferTexture) X(FramebufferTexture1D) X(FramebufferTexture2D)                   \
    X(FramebufferTexture3D) X(FramebufferTextureLayer) X(FrontFace) X(GenBuffers) X(GenFramebuffers) X(GenQueries)     \
    X(GenRenderbuffers) X(GenSamplers) X(GenTextures) X(GenVertexArrays) X(GenerateMipmap) X(GetActiveAttrib)          \
    X(GetActiveUniform) X(GetActiveUniformBlockName) X(GetActiveUniformBlockiv) X(GetActiveUniformName)                \
    X(GetActiveUniformsiv) X(GetAttachedShaders) X(GetAttribLocation) X(GetBooleani_v) X(GetBooleanv)                  \
    X(GetBufferParameteri64v) X(GetBufferParameteriv) X(GetBufferSubData) X(GetDoublev) X(GetError) X(GetFloati_v) X(GetFloatv)                  \
    X(GetFragDataLocation) X(GetGraphicsResetStatus) X(GetFramebufferAttachmentParameteriv) X(GetInteger64i_v) X(GetInteger64v) X(GetIntegeri_v) \
    X(GetIntegerv) X(GetInternalformativ) X(GetObjectLabel) X(GetProgramInfoLog) X(GetProgramiv) X(GetQueryObjectiv)   \
    X(GetQueryObjectui64v) X(GetQueryObjectuiv) X(GetQueryiv) X(GetShaderInfoLog) X(GetShaderSource) X(GetShaderiv)    \
    X(GetString) X(GetStringi) X(GetTexImage) X(GetTexLevelParameterfv) X(GetTexLevelParameteriv) X(GetTexParameterfv) X(GetTexParameteriv)      \
    X(GetUniformBlockIndex) X(GetUniformIndices) X(GetUniformLocation) X(GetUniformfv) X(GetUniformiv)                 \
    X(GetUniformuiv) X(GetVertexAttribIuiv) X(GetVertexAttribPointerv) X(GetVertexAttribfv) X(GetVertexAttribiv)       \
    X(Hint) X(InvalidateFramebuffer) X(IsBuffer) X(IsEnabled) X(IsEnabledi) X(IsFramebuffer) X(IsProgram) X(IsQuery)   \
    X(IsSampler) X(IsShader) X(IsTexture) X(IsVertexArray) X(LineWidth) X(LinkProgram) X(MapBuffer) X(MapBufferRange)  \
    X(MaxShaderCompilerThreadsARB) X(MaxShaderCompilerThreadsKHR) X(MemoryBarrier) X(MultiDrawArrays)                  \
    X(MultiDrawArraysIndirect) X(MultiDrawElements) X(MultiDrawElementsBaseVertex) X(MultiDrawElementsIndirect)        \
    X(ObjectLabel) X(PatchParameterfv) X(PatchParameteri) X(PauseTransformFeedback) X(PixelStorei) X(PointParameterf)  \
    X(PointParameteri) X(PointSize) X(PolygonMode) X(PolygonOffset) X(PopDebugGroup) X(PrimitiveRestartIndex)          \
    X(ProvokingVertex) X(PushDebugGroup) X(QueryCounter) X(ReadBuffer) X(ReadPixels) X(RenderbufferStorage)            \
    X(ResumeTransformFeedback) X(SampleMaski) X(SamplerParameterf) X(SamplerParameteri) X(Scissor) X(ScissorIndexed)   \
    X(ShaderSource) X(ShaderStorageBlockBinding) X(StencilFunc) X(StencilFuncSeparate) X(StencilMask)                  \
    X(StencilMaskSeparate) X(StencilOp) X(StencilOpSeparate) X(TexBuffer) X(TexBufferRange) X(TexImage1D)              \
    X(TexImage2D) X(TexImage2DMultisample) X(TexImage3D) X(TexImage3DMultisample) X(TexParameterf) X(TexParameterfv)   \
    X(TexParameteri) X(TexParameteriv) X(TexStorage2D) X(TexStorage3D) X(TexSubImage1D) X(TexSubImage2D)               \
    X(TexSubImage3D) X(TransformFeedbackVaryings) X(Uniform1f) X(Uniform1fv) X(Uniform1i) X(Uniform1iv) X(Uniform1ui)  \
    X(Uniform1uiv) X(Uniform2f) X(Uniform2fv) X(Uniform2i) X(Uniform2iv) X(Uniform2ui) X(Uniform2uiv) X(Uniform3f)     \
    X(Uniform3fv) X(Uniform3i) X(Uniform3iv) X(Uniform3ui) X(Uniform3uiv) X(Uniform4f) X(Uniform4fv) X(Uniform4i)      \
    X(Uniform4iv) X(Uniform4ui) X(Uniform4uiv) X(UniformBlockBinding) X(UniformMatrix2fv) X(UniformMatrix3fv)          \
    X(UniformMatrix4fv) X(UnmapBuffer) X(UseProgram) X(ValidateProgram) X(VertexAttrib1f) X(VertexAttrib2f)            \
    X(VertexAttrib3f) X(VertexAttrib4f) X(VertexAttrib4fv) X(VertexAttribDivisor) X(VertexAttribI1i)                   \
    X(VertexAttribI1ui) X(VertexAttribI4i) X(VertexAttribI4ui) X(VertexAttribI4uiv) X(VertexAttribIPointer)            \
    X(VertexAttribPointer) X(Viewport) X(ViewportIndexedf) X(WaitSync)
// clang-format on

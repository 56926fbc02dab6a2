#version 150

// Vertex-stage helpers of the layered shadow passes, added to a vertex stage as a source of its own.

// Clip space to a layer of a light whose clip volume begins at depth 0: vertices at or before it lie in
// the half that shadow maps leave empty.
bool kvo_isBeforeShadowMap(vec4 clip)
{
  return clip.z <= 0.0;
}

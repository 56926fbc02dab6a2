#version 150

// A sky as a latitude-longitude map: the centre looks along -z, the right half has +x in its middle.

uniform vec3 Kvo_QVector3D_Sun; // where the sun stands; any length
uniform float Kvo_float_Clouds; // how much of the sky they cover, from 0 to 1

in vec2 vo_TexCoord;

out vec4 o_Sky;

const float kPi = 3.14159265358979;

float hash(vec3 p)
{
  p = fract(p * vec3(0.1031, 0.1030, 0.0973));
  p += dot(p, p.yzx + 33.33);
  return fract((p.x + p.y) * p.z);
}

float noise(vec3 p)
{
  vec3 cell = floor(p);
  vec3 f = fract(p);
  f = f * f * (3.0 - 2.0 * f);
  float near = mix(mix(hash(cell), hash(cell + vec3(1, 0, 0)), f.x),
                   mix(hash(cell + vec3(0, 1, 0)), hash(cell + vec3(1, 1, 0)), f.x), f.y);
  float far = mix(mix(hash(cell + vec3(0, 0, 1)), hash(cell + vec3(1, 0, 1)), f.x),
                  mix(hash(cell + vec3(0, 1, 1)), hash(cell + vec3(1, 1, 1)), f.x), f.y);
  return mix(near, far, f.z);
}

float cloud(vec3 p)
{
  float sum = 0.0;
  float weight = 0.5;
  for(int i = 0; i < 5; ++i)
  {
    sum += weight * noise(p);
    p = 2.03 * p + 7.1;
    weight *= 0.5;
  }
  return sum;
}

void main()
{
  float longitude = (vo_TexCoord.x - 0.5) * 2.0 * kPi;
  float latitude = (vo_TexCoord.y - 0.5) * kPi;
  vec3 direction = vec3(sin(longitude) * cos(latitude), sin(latitude), -cos(longitude) * cos(latitude));
  vec3 sun = normalize(Kvo_QVector3D_Sun);
  float toSun = max(0.0, dot(direction, sun));

  vec3 color = mix(vec3(0.75, 0.82, 0.88), vec3(0.16, 0.36, 0.68), pow(max(0.0, direction.y), 0.55));
  color += vec3(1.0, 0.75, 0.45) * (0.35 * pow(toSun, 12.0) + 0.5 * pow(toSun, 300.0));
  if(Kvo_float_Clouds > 0.0 && direction.y > 0.0)
  {
    // On a plane above, far ones fading into the haze.
    vec3 place = vec3(direction.xz / (direction.y + 0.12), 0.0).xzy * 1.6;
    float density = smoothstep(1.0 - Kvo_float_Clouds, 1.25 - Kvo_float_Clouds, cloud(place) * 1.25);
    vec3 lit = mix(vec3(0.72, 0.75, 0.8), vec3(1.0, 0.98, 0.95), 0.5 + 0.5 * toSun);
    color = mix(color, lit, density * smoothstep(0.0, 0.25, direction.y));
  }
  color = mix(color, vec3(2.5, 2.3, 1.9), smoothstep(0.9994, 0.9998, toSun));
  vec3 soil = mix(vec3(0.52, 0.49, 0.43), vec3(0.34, 0.32, 0.29), smoothstep(0.0, 0.9, -direction.y));
  vec3 ground = mix(vec3(0.75, 0.82, 0.88), soil, smoothstep(0.0, 0.15, -direction.y));
  color = mix(color, ground, smoothstep(0.0, 0.004, -direction.y));
  o_Sky = vec4(color, 1.0);
}

#!/usr/bin/env python3
"""The blend modes against the same formulas in NumPy, in double precision.

    blend_modes.py
"""

import numpy as np

import kvo

SIZE = (64, 64)


def mixed(mode, source, destination):
    """Premultiplied colours of one mode, after Porter and Duff and the compositing modes of SVG."""
    s, sa, d, da = source[..., :3], source[..., 3:], destination[..., :3], destination[..., 3:]
    both = sa + da - sa * da
    apart = s * (1 - da) + d * (1 - sa)
    with np.errstate(divide="ignore", invalid="ignore"):
        m = d / da
        dodge = np.minimum(1, m * sa / (sa - s))
        burn = 1 - np.minimum(1, (1 - m) * sa / s)
        bright = np.where(4 * d <= da, 16 * m**3 - 12 * m**2 - 3 * m, np.sqrt(m) - m)
    low, high = 2 * s * d + apart, s * (1 + da) + d * (1 + sa) - 2 * s * d - sa * da
    zero = np.zeros_like(s)
    color, alpha = {
        "Clear": (zero, 0 * sa),
        "Src": (s, sa),
        "Dst": (d, da),
        "SrcOver": (s + d * (1 - sa), both),
        "DstOver": (d + s * (1 - da), both),
        "SrcIn": (s * da, sa * da),
        "DstIn": (d * sa, da * sa),
        "SrcOut": (s * (1 - da), sa * (1 - da)),
        "DstOut": (d * (1 - sa), da * (1 - sa)),
        "SrcAtop": (s * da + d * (1 - sa), da),
        "DstAtop": (d * sa + s * (1 - da), sa),
        "Xor": (apart, sa + da - 2 * sa * da),
        "Add": (s + d, sa + da),
        "Multiply": (s * d + apart, both),
        "Screen": (s + d - s * d, both),
        "Overlay": (np.where(2 * d <= 1, low, high), both),  # compares with 1, not with the alpha
        "Darken": (np.minimum(s * da, d * sa) + apart, both),
        "Lighten": (np.maximum(s * da, d * sa) + apart, both),
        "ColorDodge": (np.where(s == sa, sa * da, sa * da * dodge) + apart, both),
        "ColorBurn": (sa * da * burn + apart, both),
        "HardLight": (np.where(2 * s <= sa, low, high), both),
        "SoftLight": (
            np.where(
                2 * s <= sa,
                d * (sa + (2 * s - sa) * (1 - m)) + apart,
                da * (2 * s - sa) * bright + s - s * da + d,
            ),
            both,
        ),
        "Exclusion": (s * da + d * sa - 2 * s * d + apart, both),
        "Difference": (s + d - 2 * np.minimum(s * da, d * sa), both),
        "InvertAndAdd": (apart + (0.5 - 0.5 * (d - s)) * sa * da, both),
        "MultiplyKeepAlpha": (s * d, sa * da),
    }[mode]
    return np.concatenate([color, alpha], axis=2)


MODES = (
    "Clear Src Dst SrcOver DstOver SrcIn DstIn SrcOut DstOut SrcAtop DstAtop Xor Add Multiply Screen Overlay Darken "
    "Lighten ColorDodge ColorBurn HardLight SoftLight Exclusion Difference InvertAndAdd MultiplyKeepAlpha"
).split()


def main():
    random = np.random.default_rng(7)
    frames = []
    for _ in range(2):
        alpha = random.uniform(0.05, 1, (*SIZE[::-1], 1))
        frames.append(np.concatenate([random.uniform(0.02, 0.98, (*SIZE[::-1], 3)) * alpha, alpha], 2).astype(np.float32))
    pipeline = kvo.Pipeline()
    blend = pipeline.add("Blend", "BlendRenderPass")
    blend.FrameA, blend.FrameB = (kvo.Texture(frame) for frame in frames)
    worst = {}
    for number, mode in enumerate(MODES):
        pipeline.set("Blend", "Int_BlendMode", number)
        drawn = pipeline.render(size=SIZE, outputs=["Blend.Frame"])["Blend.Frame"]
        difference = np.abs(drawn - mixed(mode, frames[0].astype(float), frames[1].astype(float)))
        worst[mode] = difference.max()
        print(f"{number:2} {mode:18} {worst[mode]:.2e}")
    return worst


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""A contact sheet of all pipelines that show a model.

    contact_sheet.py MODEL [OUTPUT.png]
"""

import sys
from pathlib import Path

import numpy as np

import kvo

TILE = (240, 135)  # width, height
GAP = 6


def main(path, output="contact-sheet.png"):
    model = kvo.Model(path)
    model.fit()
    tiles = []
    for name in sorted(kvo.pipelines()):
        pipeline = kvo.Pipeline(name)
        try:
            picture = pipeline.render(model, TILE, kvo.orbit(yaw=35, pitch=20), frames=4)
        except kvo.Error as error:
            print(f"{name}: {error}")
            continue
        tiles.append(picture.over("#20242c")[..., :3])
        print(f"{name}: {', '.join(pipeline.order)}")
    columns = int(np.ceil(np.sqrt(len(tiles))))
    rows = -(-len(tiles) // columns)
    sheet = np.zeros((rows * (TILE[1] + GAP) - GAP, columns * (TILE[0] + GAP) - GAP, 3), np.uint8)
    for i, tile in enumerate(tiles):
        y, x = (i // columns) * (TILE[1] + GAP), (i % columns) * (TILE[0] + GAP)
        sheet[y : y + TILE[1], x : x + TILE[0]] = tile
    sheet.view(kvo.Image).save(output)
    print(f"{len(tiles)} pipelines in {Path(output)}")
    return sheet


if __name__ == "__main__":
    main(*sys.argv[1:])

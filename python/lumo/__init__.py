"""Beautify numpy frames with LumoImageFilter.

    import cv2, lumo
    beautifier = lumo.Beautifier(mask="polish,whiten,skin-whiten", whiten=0.4)
    out = beautifier.process(cv2.imread("portrait.jpg"))   # BGR in, BGR out

Frames are uint8 arrays H x W x 3 (BGR, OpenCV's order) or H x W x 4 (BGRA), C-contiguous or with padded
rows. BGRA frames are handed to the engine without a copy; BGR frames cost one conversion each way.
`python3 -m lumo.batch` beautifies photo files in parallel on a Dask cluster.
"""

from ._lumo import (DEFAULTS, MASK_BITS, MAX_FRAME_PIXELS, MAX_FRAME_SIDE, SETTING_RANGES, Beautifier, __version__,
                    check_frame_size, check_settings)

__all__ = ["Beautifier", "check_frame_size", "check_settings", "DEFAULTS", "MASK_BITS", "MAX_FRAME_PIXELS",
           "MAX_FRAME_SIDE", "SETTING_RANGES", "__version__"]

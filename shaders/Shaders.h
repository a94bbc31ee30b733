#pragma once

#include "Export.h"

// The shader texts of the filters, exported so that a host driving single filters can reuse them. Each
// text is defined beside the filter that installs it. The Gaussian blur's texts are generated at run time
// (VideoProcessGaussianBlurFilter).
namespace lumo {

LUMO_EXPORT extern const char* const kVideoCapFilterVertexShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterPassThroughFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterAlphaBlendFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterSkinDetectFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterBilateralVertexShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterBilateralFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterSharpenVertexShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterSharpenFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterWhitenFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterPinkWhitenFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterOverlayFragmentShaderString;
LUMO_EXPORT extern const char* const kVideoCapFilterCustomizedFragmentShaderString;

}  // namespace lumo

#pragma once

// The whole public interface of libcorvane.

#include <corvane/coding/Bytes.hpp>
#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/CorvaneError.hpp>
#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/platform/BuildVariant.hpp>
#include <corvane/platform/DeviceInfo.hpp>
#include <corvane/platform/FeatureFlags.hpp>
#include <corvane/platform/Localization.hpp>
#include <corvane/platform/Log.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/platform/Random.hpp>

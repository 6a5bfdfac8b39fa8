#pragma once

/// The whole host text layer.
#include <vela/i18n/convert.hpp>
#include <vela/i18n/ctype.hpp>
#include <vela/i18n/cvt_exception.hpp>
#include <vela/i18n/facet.hpp>
#include <vela/i18n/initialize.hpp>
#include <vela/i18n/time_zone.hpp>

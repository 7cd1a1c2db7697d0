#pragma once

// The value-node kinds through which a device handler publishes its operations.
#include "dh_api/bound_method.hpp"
#include "dh_api/command.hpp"
#include "dh_api/config_param.hpp"
#include "dh_api/const_value.hpp"
#include "dh_api/hysteresis.hpp"
#include "dh_api/json_conversion.hpp"
#include "dh_api/polled_value.hpp"
#include "dh_api/pushed_value.hpp"
#include "dh_api/status_value.hpp"
#include "dh_api/units.hpp"
#include "dh_api/volatile_value.hpp"
#include "value_group.hpp"

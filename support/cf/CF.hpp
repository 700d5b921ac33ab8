// All value wrappers.
#pragma once

#include "support/cf/Array.hpp"
#include "support/cf/Boolean.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Date.hpp"
#include "support/cf/Dictionary.hpp"
#include "support/cf/Error.hpp"
#include "support/cf/Number.hpp"
#include "support/cf/PropertyList.hpp"
#include "support/cf/String.hpp"
#include "support/cf/UUID.hpp"

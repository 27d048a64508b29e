// The live values in the view (view/layout.h), beside the bus: what a SET changed is there before
// it is answered or announced. Passwords are not in it.
//
// Where no view can be made (a full /tmp), that is logged, the service serves on without it, and
// tries again now and then while values change.
#pragma once

#include "service/param_list.h"

#include <span>

namespace kelconf {

// Ends what an earlier run left and publishes ParamList. Once, when it is loaded, before the first
// request.
void publishValues();

// Publishes the present values of these parameters, all at once. The get-all lock is held. Does
// nothing before publishValues and after withdrawValues.
void publishChanges(std::span<ParamElement* const> changed);

// The service ends: readers are told so.
void withdrawValues();

} // namespace kelconf

/// @file  substrate/component.cpp
/// @brief Out-of-line anchors of the component base classes.
#include <hexmold/substrate/component.h>

namespace TVL {

Base::~Base() = default;
Component::~Component() = default;

} // namespace TVL

// How the worker's operations become commands: a member function with its arguments, posted and
// waited for. Included by the worker's own units only.
#pragma once

#include <new>

#include "ChannelEntity.h"

// True when the command has run; its results are then where its arguments point.
template <class Argument>
bool ChannelEntity::Post(void (ChannelEntity::*operation)(Argument), Argument argument) {
    using Command = Functor1<ChannelEntity, decltype(operation), Argument>;
    return PostItem(new (std::nothrow) Command(this, operation, argument), true);
}

template <class First, class Second>
bool ChannelEntity::Post(void (ChannelEntity::*operation)(First, Second), First first,
                         Second second) {
    using Command = Functor2<ChannelEntity, decltype(operation), First, Second>;
    return PostItem(new (std::nothrow) Command(this, operation, first, second), true);
}

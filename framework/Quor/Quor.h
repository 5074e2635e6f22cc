// Umbrella header of the Quor entity/reactor framework.
#pragma once
#include <Quor/Types.h>
#include <Quor/Ptr.h>
#include <Quor/String.h>
#include <Quor/Exception.h>
#include <Quor/Assert.h>
#include <Quor/Notifiee.h>
#include <Quor/Entity.h>
#include <Quor/Time.h>
#include <Quor/Activity.h>
#include <Quor/Collections.h>
#include <Quor/Trace.h>
#include <Quor/Log.h>
#include <Quor/Strep.h>
#include <Quor/SignalHandler.h>

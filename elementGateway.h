// The element gateway: access layer between the panel's modules and the panel's element tree.
// This header declares the whole interface, grouped by area.
#ifndef ELEMENT_GATEWAY_H
#define ELEMENT_GATEWAY_H

#include "api/gatewayTypes.h"
#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"
#include "identity/gatewayIdentity.h"

#endif

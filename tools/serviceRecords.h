// The panel service's records as the tool shows them, from the service's own types: shared by the
// database file read in this process and the records asked of egwd.
#ifndef TOOLS_SERVICE_RECORDS_H
#define TOOLS_SERVICE_RECORDS_H

#include "PanelService.h"
#include "tools/panelGateway.h"

namespace egwtool
{

inline StoredEvent storedEventOf(const ::egw::rpc::Event& event)
{
    StoredEvent stored;
    stored.id = event.sequence;
    stored.timeMs = event.timeMs;
    stored.eventId = static_cast<UINT32>(event.eventId);
    stored.uuid = static_cast<UINT32>(event.uuid);
    stored.idString = event.idString;
    stored.stateChange = event.__isset.stateChange;
    if (stored.stateChange)
    {
        stored.group = static_cast<UINT32>(event.stateChange.groupId);
        stored.value = static_cast<UINT32>(event.stateChange.value);
        stored.previous = static_cast<UINT32>(event.stateChange.previous);
    }
    if (event.__isset.detail)
    {
        stored.category = event.detail.category;
    }
    stored.source = static_cast<UINT32>(event.source);
    stored.lost = event.lost;
    return stored;
}

} // namespace egwtool

#endif

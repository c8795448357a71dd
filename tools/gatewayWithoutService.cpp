// egw built without Apache Thrift (the cross and legacy string ABI builds): it works on the panel
// in its own process only.
#include "tools/panelGateway.h"

namespace egwtool
{

std::unique_ptr<PanelGateway> remoteGateway(const Connection& connection)
{
    throw GatewayError("--connect " + connection.hostPort +
                       ": this egw was built without the panel service's client");
}

std::unique_ptr<RecordSource> databaseRecords(const std::string& file)
{
    throw GatewayError("--database " + file +
                       ": this egw was built without the panel service's records");
}

} // namespace egwtool

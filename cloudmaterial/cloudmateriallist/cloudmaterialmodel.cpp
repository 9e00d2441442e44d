#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"

namespace talvor::cloudmaterial {

void registerCloudMaterialMetaTypes()
{
    qRegisterMetaType<DownloadStatus>("DownloadStatus");
    qRegisterMetaType<ApprovalStatus>("ApprovalStatus");
    qRegisterMetaType<CatalogueState>("CatalogueState");
    qRegisterMetaType<CloudMaterialModel>("CloudMaterialModel");
    qRegisterMetaType<std::vector<CloudMaterialModel>>("std::vector<CloudMaterialModel>");
    qRegisterMetaType<std::vector<std::string>>("std::vector<std::string>");
    qRegisterMetaType<std::string>("std::string");
}

} // namespace talvor::cloudmaterial

#pragma once

#include "cloudmaterial/autotest_export_p.h"

#include <memory>

namespace talvor::cloudmaterial {

class CloudMaterialController;
class LoginController;
class MainController;
class WorkerPool;

/** The controller's parts, for the autotests and benchmarks; hosts never see them. */
class RXCLOUDMATERIAL_AUTOTEST_EXPORT MainControllerInternals
{
public:
    static std::shared_ptr<WorkerPool> workerPool(const MainController &controller);
    static std::shared_ptr<CloudMaterialController> materialController(const MainController &controller);
    static LoginController &loginController(const MainController &controller);
};

} // namespace talvor::cloudmaterial

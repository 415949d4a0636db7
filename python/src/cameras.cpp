#include "broker.hpp"
#include "image.hpp"
#include "module.hpp"
#include "values.hpp"

#include <krplatform/krvideodeviceproxy.hpp>
#ifdef KR_WITH_CAMERA
#include <krcamera/krvideodevice.hpp>
#endif

#include <pybind11/stl.h>

#include <memory>
#include <vector>

namespace KR::python {

namespace {

using Cameras = Attached<KRVideoDeviceProxy>;

std::unique_ptr<Cameras> makeCameras(std::shared_ptr<PythonBroker> broker) {
    auto proxy = unlocked([b = broker->get("Cameras")] { return std::make_shared<KRVideoDeviceProxy>(b); });
    return std::make_unique<Cameras>(std::move(broker), std::move(proxy));
}

PythonImage fetch(const Cameras& self, const std::string& id) {
    return {self.use("image", [&](KRVideoDeviceProxy& cameras) {
        const KRValue value = cameras.getImageRemote(id);
        const std::unique_ptr<KRImage> image(KRImage::fromKRValue(value));
        cameras.releaseImage(id);
        if (!image) {
            throw KRError("KRVideoDevice", "getImageRemote", "the answer is not an image");
        }
        return *image;
    })};
}

template <class Info>
py::list listInfos(const std::vector<Info>& infos) {
    py::list list;
    for (const Info& info : infos) {
        list.append(toPython(info.toKRValue()));
    }
    return list;
}

/// The camera service in this process.
class Service : public BrokerClient {
public:
    Service(std::shared_ptr<PythonBroker> broker, [[maybe_unused]] const std::string& name,
            [[maybe_unused]] const std::vector<std::string>& sources)
        : broker_(std::move(broker)) {
#ifdef KR_WITH_CAMERA
        auto module = unlocked(
            [&, b = broker_->get("CameraService")] { return createModule<KRVideoDevice>(b, name, sources); });
        module_ = std::make_shared<KRModuleHandle<KRModule>>(std::move(module));
        broker_->add(*this);
#else
        throw KRError("CameraService", "CameraService", "this krvision was built with KR_CAMERA=OFF");
#endif
    }
    ~Service() override {
        broker_->remove(*this);
        close();
    }
    void close() {
        unlocked([module = std::move(module_)] {});
    }
    std::shared_ptr<void> drop() noexcept override {
        return std::move(module_);
    }

private:
    const std::shared_ptr<PythonBroker> broker_;
    std::shared_ptr<KRModuleHandle<KRModule>> module_;
};

} // namespace

void bindCameras(py::module_& m) {
    py::class_<Cameras>(m, "Cameras")
        .def(py::init(&makeCameras), py::arg("broker"))
        .def(
            "subscribe",
            [](const Cameras& self, const std::string& name, int camera, int resolution, int colorSpace,
               int frameRate) {
                return self.use("subscribe", [&](KRVideoDeviceProxy& cameras) {
                    return cameras.subscribeCamera(name, camera, resolution, colorSpace, frameRate);
                });
            },
            py::arg("name"), py::arg("camera"), py::arg("resolution"), py::arg("color_space"),
            py::arg("frame_rate"))
        .def(
            "unsubscribe",
            [](const Cameras& self, const std::string& id) {
                self.use("unsubscribe", [&](KRVideoDeviceProxy& cameras) { cameras.unsubscribe(id); });
            },
            py::arg("id"))
        .def("fetch", &fetch, py::arg("id"))
        .def(
            "set",
            [](const Cameras& self, const std::string& id, const std::string& setting, int value) {
                return self.use("set", [&](KRVideoDeviceProxy& cameras) {
                    return setting == "frame_rate"    ? cameras.setFrameRate(id, value)
                           : setting == "resolution"  ? cameras.setResolution(id, value)
                           : setting == "color_space" ? cameras.setColorSpace(id, value)
                                                      : cameras.setActiveCamera(id, value);
                });
            },
            py::arg("id"), py::arg("setting"), py::arg("value"))
        .def(
            "frame_rate",
            [](const Cameras& self, const std::string& id) {
                return self.use("frame_rate",
                                [&](KRVideoDeviceProxy& cameras) { return cameras.getFrameRate(id); });
            },
            py::arg("id"))
        .def(
            "set_parameter",
            [](const Cameras& self, const std::string& id, int parameter, int value) {
                return self.use("set_parameter", [&](KRVideoDeviceProxy& cameras) {
                    return cameras.setCameraParameter(id, parameter, value);
                });
            },
            py::arg("id"), py::arg("parameter"), py::arg("value"))
        .def(
            "reset_parameters",
            [](const Cameras& self, const std::string& id) {
                self.use("reset_parameters",
                         [&](KRVideoDeviceProxy& cameras) { cameras.setAllCameraParametersToDefault(id); });
            },
            py::arg("id"))
        .def("cameras",
             [](const Cameras& self) {
                 return listInfos(self.use("cameras", [](auto& cameras) { return cameras.getCameraList(); }));
             })
        .def(
            "controls",
            [](const Cameras& self, int camera) {
                return listInfos(
                    self.use("controls", [&](auto& cameras) { return cameras.getControls(camera); }));
            },
            py::arg("camera"))
        .def("subscribers",
             [](const Cameras& self) {
                 return listInfos(
                     self.use("subscribers", [](auto& cameras) { return cameras.getSubscribers(); }));
             })
        .def("statistics", [](const Cameras& self) {
            return listInfos(self.use("statistics", [](auto& cameras) { return cameras.getStatistics(); }));
        });
    py::class_<Service>(m, "CameraService")
        .def(py::init<std::shared_ptr<PythonBroker>, const std::string&, const std::vector<std::string>&>(),
             py::arg("broker"), py::arg("name"), py::arg("sources"))
        .def("close", &Service::close);
}

} // namespace KR::python

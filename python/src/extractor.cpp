#include "errors.hpp"
#include "image.hpp"
#include "module.hpp"
#include "values.hpp"

#include <pybind11/stl.h>

#include <optional>
#include <utility>
#include <vector>

namespace KR::python {

namespace {

struct Bounds {
    int defaultPeriod;
    float defaultPrecision;
    int minimumPeriod;
    int maximumPeriod; // negative: none
};

class HostedExtractor final : public HostedOn<KRExtractor> {
public:
    HostedExtractor(PyObject* self, const boost::shared_ptr<KRBroker>& broker, const std::string& name,
                    Bounds bounds)
        : HostedOn(self, broker, name), bounds_(bounds) {}

    void xStartDetection(int period, float precision) override {
        callHook("start_detection", period, precision);
    }
    using KRExtractor::xUpdateParameters;
    void xUpdateParameters(int period, float precision) override {
        callHook("update_parameters", period, precision);
    }
    void xStopDetection() override { callHook("stop_detection"); }
    int getDefaultPeriod() override { return bounds_.defaultPeriod; }
    float getDefaultPrecision() override { return bounds_.defaultPrecision; }
    int getMinimumPeriod() override { return bounds_.minimumPeriod; }
    int getMaximumPeriod() override { return bounds_.maximumPeriod; }

private:
    const Bounds bounds_;
};

class HostedVisionExtractor final : public HostedOn<KRVisionExtractor> {
public:
    using HostedOn::HostedOn;

    void xStartImageProcessing() override { callHook("start_image_processing"); }
    // An exception that leaves this would end the acquisition, so it is logged, and the next image follows.
    void xProcessImage(KRImage* image) override {
        constexpr const char* kHook = "process_image";
        try {
            const Hook running(*this, kHook);
            try {
                // The copy shares the pixels.
                running.getSelf().attr(kHook)(PythonImage{*image});
            } catch (py::error_already_set& error) {
                if (error.matches(PyExc_KeyboardInterrupt)) {
                    PyErr_SetInterrupt(); // for the main thread
                } else {
                    logException(error, getName(), kHook);
                }
            }
        } catch (const KRError&) { // the interpreter is exiting, or the object has been destroyed
        }
    }
    void xStopImageProcessing() override { callHook("stop_image_processing"); }
    using KRVisionExtractor::xUpdateParameters;
    void xUpdateParameters(int period, float precision) override {
        KRVisionExtractor::xUpdateParameters(period, precision);
        callHook("update_parameters", period, precision);
    }
};

template <class Extractor, class... Arguments>
std::unique_ptr<ModuleBody> makeBody(py::handle self, const PythonBroker& broker, const std::string& name,
                                     Arguments... arguments) {
    auto module = unlocked([&, b = broker.get("Extractor")] {
        return std::make_unique<Extractor>(self.ptr(), b, name, arguments...);
    });
    Hosted& hosted = *module;
    return std::make_unique<ModuleBody>(std::move(module), hosted);
}

template <class Extractor, class Function>
auto wrap(const char* method, Function function) {
    return [method, function](const ModuleBody& self) { return self.use<Extractor>(method, function); };
}

} // namespace

std::unique_ptr<ModuleBody> makeExtractorBody(py::handle self, const PythonBroker& broker,
                                              const std::string& name, int defaultPeriod,
                                              float defaultPrecision, int minimumPeriod, int maximumPeriod) {
    return makeBody<HostedExtractor>(self, broker, name,
                                     Bounds{defaultPeriod, defaultPrecision, minimumPeriod, maximumPeriod});
}

std::unique_ptr<ModuleBody> makeVisionExtractorBody(py::handle self, const PythonBroker& broker,
                                                    const std::string& name, int resolution, int colorSpace,
                                                    int frameRate, int camera) {
    return makeBody<HostedVisionExtractor>(self, broker, name, resolution, colorSpace, frameRate, camera);
}

void bindExtractor(py::class_<ModuleBody>& body) {
    using Extractor = KRExtractor;
    using Vision = KRVisionExtractor;
    body.def(
            "declare_event",
            [](const ModuleBody& self, const std::string& event) {
                Hosted& hosted = self.getHosted("declare_event");
                self.use<Extractor>("declare_event", [&](Extractor&) { hosted.declareEvent(event); });
            },
            py::arg("event"))
        .def(
            "declare_memory_key",
            [](const ModuleBody& self, const std::string& key) {
                Hosted& hosted = self.getHosted("declare_memory_key");
                self.use<Extractor>("declare_memory_key", [&](Extractor&) { hosted.declareKey(key); });
            },
            py::arg("key"))
        .def(
            "subscribe",
            [](const ModuleBody& self, const std::string& client, std::optional<int> period,
               float precision) {
                self.use<Extractor>("subscribe", [&](Extractor& extractor) {
                    if (period) {
                        extractor.subscribe(client, *period, precision);
                    } else {
                        extractor.subscribe(client);
                    }
                });
            },
            py::arg("client"), py::arg("period"), py::arg("precision"))
        .def(
            "unsubscribe",
            [](const ModuleBody& self, const std::string& client) {
                self.use<Extractor>("unsubscribe",
                                    [&](Extractor& extractor) { extractor.unsubscribe(client); });
            },
            py::arg("client"))
        .def(
            "update_period",
            [](const ModuleBody& self, const std::string& client, int period) {
                self.use<Extractor>("update_period",
                                    [&](Extractor& extractor) { extractor.updatePeriod(client, period); });
            },
            py::arg("client"), py::arg("period"))
        .def(
            "update_precision",
            [](const ModuleBody& self, const std::string& client, float precision) {
                self.use<Extractor>("update_precision", [&](Extractor& extractor) {
                    extractor.updatePrecision(client, precision);
                });
            },
            py::arg("client"), py::arg("precision"))
        .def("subscribers",
             [](const ModuleBody& self) {
                 return toPython(self.use<Extractor>(
                     "subscribers", [](Extractor& extractor) { return extractor.getSubscribersInfo(); }));
             })
        .def("period", wrap<Extractor>("period", [](Extractor& e) { return e.getCurrentPeriod(); }))
        .def("precision", wrap<Extractor>("precision", [](Extractor& e) { return e.getCurrentPrecision(); }))
        .def("events", wrap<Extractor>("events", [](Extractor& e) { return e.getEventList(); }))
        .def("memory_keys",
             wrap<Extractor>("memory_keys", [](Extractor& e) { return e.getMemoryKeyList(); }));
    body.def("resolution", wrap<Vision>("resolution", [](Vision& v) { return v.getResolution(); }))
        .def("color_space", wrap<Vision>("color_space", [](Vision& v) { return v.getColorSpace(); }))
        .def("camera", wrap<Vision>("camera", [](Vision& v) { return v.getActiveCamera(); }))
        .def("frame_rate", wrap<Vision>("frame_rate", [](Vision& v) { return v.getFrameRate(); }))
        .def("paused", wrap<Vision>("paused", [](Vision& v) { return v.isPaused(); }))
        .def("processing", wrap<Vision>("processing", [](Vision& v) { return v.isProcessing(); }))
        .def(
            "pause",
            [](const ModuleBody& self, bool paused) {
                self.use<Vision>("pause", [&](Vision& vision) { vision.pause(paused); });
            },
            py::arg("paused"))
        .def(
            "set_resolution",
            [](const ModuleBody& self, int resolution) {
                return self.use<Vision>("set_resolution",
                                        [&](Vision& vision) { return vision.setResolution(resolution); });
            },
            py::arg("resolution"))
        .def(
            "set_color_space",
            [](const ModuleBody& self, int colorSpace) {
                return self.use<Vision>("set_color_space",
                                        [&](Vision& vision) { return vision.setColorSpace(colorSpace); });
            },
            py::arg("color_space"))
        .def(
            "set_camera",
            [](const ModuleBody& self, int camera) {
                return self.use<Vision>("set_camera",
                                        [&](Vision& vision) { return vision.setActiveCamera(camera); });
            },
            py::arg("camera"))
        .def(
            "set_frame_rate",
            [](const ModuleBody& self, int frameRate, const std::optional<std::string>& client) {
                return self.use<Vision>("set_frame_rate", [&](Vision& vision) {
                    return client ? vision.setFrameRate(*client, frameRate) : vision.setFrameRate(frameRate);
                });
            },
            py::arg("frame_rate"), py::arg("client"))
        .def(
            "set_subscription_parameters",
            [](const ModuleBody& self, const std::vector<std::pair<int, int>>& parameters) {
                self.use<Vision>("set_subscription_parameters",
                                 [&](Vision& vision) { vision.setSubscriptionParameters(parameters); });
            },
            py::arg("parameters"));
}

} // namespace KR::python

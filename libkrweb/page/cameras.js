// The camera panel: live pictures with annotations, statistics, and controls.

import { drawAnnotations } from "./annotations.js";
import { ControlList } from "./controls.js";
import { element, setEmptyNote, setOptions, setText, settings, syncList } from "./dom.js";
import { readCompressedImage } from "./protocol.js";
import { formatColorSpace, formatDuration, formatTenths } from "./vision.js";

const kImageTopic = /^\/camera\/(\d+)\/image$/;
const kAnnotationsSchema = "foxglove.ImageAnnotations";
const kStale_ms = 2500; // a camera without a picture for this long has stopped
const kAnnotationsLast_ms = 1500; // how long annotations are shown, or three periods of their module

const kMaxRecent = 30; // recent annotations, whose images may not be drawn yet

/** Modules that write annotations, by what the server advertises. */
function listAnnotators(client) {
    return [...client.channels.values()]
        .filter(({ schemaName, topic }) => schemaName === kAnnotationsSchema && topic.endsWith("/annotations"))
        .map(({ topic }) => ({ topic, module: topic.slice(1, -"/annotations".length) }));
}

export class CamerasPanel {
    /** `extractors` has the method find(name): the state of an extractor as the server last said, or undefined. */
    constructor(client, extractors, list, note) {
        this.client = client;
        this.extractors = extractors;
        this.list = list;
        this.note = note;
        this.views = new Map();
        this.known = new Map(); // camera states by number; a camera that has gone stays until the page is loaded again
        this.service = undefined; // whether there is a camera service; undefined before the server has said
        client.subscribeJson("/cameras", (state) => this.take(state));
        client.addEventListener("channels", () => this.show());
        client.addEventListener("state", () => this.show());
        setInterval(() => this.show(), 500);
    }

    take({ service, cameras = [] }) {
        this.service = service;
        for (const camera of cameras) {
            this.known.set(camera.camera, camera);
        }
        this.show();
    }

    show() {
        for (const topic of this.client.channels.keys()) {
            const number = Number(kImageTopic.exec(topic)?.[1] ?? NaN);
            if (!Number.isNaN(number) && !this.known.has(number)) {
                this.known.set(number, { camera: number });
            }
        }
        const cameras = [...this.known.values()].sort((a, b) => a.camera - b.camera);
        const create = ({ camera }) => new CameraView(this, camera);
        syncList(this.list, this.views, cameras, ({ camera }) => camera, create);
        setEmptyNote(this.note, cameras.length === 0, this.service === false ? "There is no camera service." : "Waiting for cameras…");
    }
}

class CameraView {
    constructor(panel, number) {
        this.panel = panel;
        this.client = panel.client;
        this.number = number;
        this.topic = `/camera/${number}/image`;
        this.annotations = new Map(); // {recent, end} by topic; recent: the last {message, time_ns, arrival_ms}
        this.shown = settings.get(`camera.${number}.annotations`, {}); // by module, what the user chose
        this.statistics = new Map();
        this.chips = new Map();
        this.arrivals = []; // times of the last pictures
        this.build();
        // Hidden pictures are not subscribed to.
        this.visible = false;
        this.observer = new IntersectionObserver((entries) => {
            this.visible = entries.at(-1).isIntersecting;
            this.follow();
        });
        this.observer.observe(this.frame);
        document.addEventListener("visibilitychange", () => this.follow());
        new ResizeObserver(() => this.requestOverlay()).observe(this.picture);
    }

    build() {
        this.picture = element("canvas", { class: "picture", role: "img", "aria-label": `Picture of camera ${this.number}` });
        this.picture.width = 640;
        this.picture.height = 480;
        this.overlay = element("canvas", { class: "overlay", "aria-hidden": "true" });
        this.curtain = element("div", { class: "curtain" });
        this.stage = element("div", { class: "stage" }, this.picture, this.overlay);
        this.frame = element("div", { class: "frame" }, this.stage, this.curtain);
        this.source = element("span", { class: "source" });
        this.facts = element("p", { class: "facts" });
        this.enlarge = element("button", { class: "quiet", "aria-pressed": "false", onclick: () => this.toggleSize() }, "Enlarge");
        this.chipList = element("div", { class: "chips", role: "group", "aria-label": "Annotations to draw" });
        this.view = new ViewChoice(this.client, this.number);
        this.statisticsTitle = element("summary");
        this.rows = element("ul", { class: "statistics" });
        this.statisticsPart = element("details", { open: true }, this.statisticsTitle, this.rows);
        this.controls = new ControlList(this.client);
        this.element = element(
            "article",
            { class: "card camera", "data-camera": this.number },
            element("header", {}, element("h3", {}, `Camera ${this.number}`), this.source, this.enlarge),
            this.frame,
            element("div", { class: "under" }, this.facts, this.view.element),
            this.chipList,
            this.statisticsPart,
            this.controls.element,
        );
    }

    toggleSize() {
        const large = this.element.classList.toggle("large");
        this.enlarge.setAttribute("aria-pressed", large);
        setText(this.enlarge, large ? "Reduce" : "Enlarge");
    }

    /** Subscribes to the picture and the chosen annotations while they can be seen. */
    follow() {
        const looking = this.visible && document.visibilityState === "visible";
        if (looking && !this.stopImages) {
            this.stopImages = this.client.subscribe(this.topic, (...message) => this.takeImage(...message));
        } else if (!looking && this.stopImages) {
            this.stopImages();
            this.stopImages = undefined;
        }
        const wanted = new Set(looking ? this.listAnnotators().filter(({ shown }) => shown).map(({ topic }) => topic) : []);
        for (const topic of wanted) {
            if (!this.annotations.has(topic)) {
                const end = this.client.subscribeJson(topic, (...message) => this.takeAnnotations(topic, ...message));
                this.annotations.set(topic, { recent: [], end });
            }
        }
        for (const [topic, { end }] of this.annotations) {
            if (!wanted.has(topic)) {
                end();
                this.annotations.delete(topic);
                this.requestOverlay();
            }
        }
    }

    /** Those of this camera, and those of modules of which no camera is known, which are off at first. */
    listAnnotators() {
        return listAnnotators(this.client)
            .map((annotator) => ({ ...annotator, camera: this.panel.extractors.find(annotator.module)?.camera }))
            .filter(({ camera }) => camera === undefined || camera === this.number)
            .map((annotator) => ({ ...annotator, shown: this.shown[annotator.module] ?? annotator.camera === this.number }));
    }

    async takeImage(...message) {
        this.arrivals = [...this.arrivals.slice(-29), performance.now()];
        if (this.decoding) {
            this.waiting = message; // the newest only
            return;
        }
        this.decoding = true;
        try {
            for (let next = message; next; next = this.waiting) {
                this.waiting = undefined;
                const [payload, time_ns] = next;
                const image = readCompressedImage(payload);
                const bitmap = await createImageBitmap(new Blob([image.data], { type: `image/${image.format}` }));
                this.drawImage(bitmap, time_ns);
            }
        } catch (error) {
            console.error(`camera ${this.number}: a picture was dropped:`, error);
        } finally {
            this.decoding = false;
        }
    }

    drawImage(bitmap, time_ns) {
        const { picture } = this;
        if (picture.width !== bitmap.width || picture.height !== bitmap.height) {
            picture.width = bitmap.width;
            picture.height = bitmap.height;
            this.stage.style.setProperty("--shape", bitmap.width / bitmap.height);
        }
        picture.getContext("2d", { alpha: false }).drawImage(bitmap, 0, 0);
        bitmap.close();
        this.lastDrawn = performance.now();
        this.drawnTime_ns = time_ns;
        picture.dataset.drawn = Number(picture.dataset.drawn ?? 0) + 1;
        this.requestOverlay();
    }

    takeAnnotations(topic, message, time_ns) {
        const { recent } = this.annotations.get(topic);
        recent.push({ message, time_ns, arrival_ms: performance.now() });
        recent.splice(0, recent.length - kMaxRecent);
        this.requestOverlay();
    }

    requestOverlay() {
        this.overlayRequest ??= requestAnimationFrame(() => {
            this.overlayRequest = undefined;
            this.drawOverlay();
        });
    }

    drawOverlay() {
        const { overlay, picture } = this;
        const density = window.devicePixelRatio || 1;
        const width = Math.round(picture.clientWidth * density);
        const height = Math.round(picture.clientHeight * density);
        if (overlay.width !== width || overlay.height !== height) {
            overlay.width = width;
            overlay.height = height;
        }
        const context = overlay.getContext("2d");
        context.clearRect(0, 0, width, height);
        for (const [topic, { recent }] of this.annotations) {
            const period = this.panel.extractors.find(topic.slice(1, -"/annotations".length))?.period ?? 0;
            const lasts_ms = Math.max(kAnnotationsLast_ms, 3 * period);
            // Annotations of the displayed image, or of the latest earlier one that the module processed.
            const fitting = recent.findLast(({ time_ns }) => time_ns <= this.drawnTime_ns);
            if (fitting && performance.now() - fitting.arrival_ms < lasts_ms) {
                drawAnnotations(context, fitting.message, density);
            }
        }
    }

    /** Shows what the server says about the camera, and what has come of it. */
    update(camera) {
        const { client } = this;
        this.follow();
        this.requestOverlay(); // old annotations go
        setText(this.source, camera.source ?? "");
        const trouble = this.findTrouble(camera);
        this.element.classList.toggle("gone", trouble !== "");
        setText(this.curtain, trouble);
        this.curtain.hidden = trouble === "";
        const rate = this.measureRate();
        setText(
            this.facts,
            [
                camera.width > 0 ? `delivers ${camera.width}×${camera.height}` : undefined,
                rate === undefined ? undefined : `${formatTenths(rate)} pictures/s`,
            ]
                .filter((fact) => fact !== undefined)
                .join(" · "),
        );
        this.view.update();
        this.updateChips();
        this.updateStatistics(camera.subscriptions ?? []);
        this.controls.update(camera.controls ?? []);
        this.controls.setReadOnly(client.server.metadata?.readOnly === "true" || trouble !== "");
    }

    findTrouble(camera) {
        if (!this.client.connected) {
            return this.client.everConnected ? "Connection lost" : "Connecting…";
        }
        if (this.panel.service === false) {
            return "The camera service is gone";
        }
        if (!this.client.channels.has(this.topic)) {
            return "This camera is gone";
        }
        if (camera.failure) {
            return camera.failure;
        }
        if (this.stopImages && performance.now() - (this.lastDrawn ?? 0) > kStale_ms) {
            return this.lastDrawn === undefined ? "Waiting for a picture…" : "No pictures received";
        }
        return "";
    }

    measureRate() {
        const times = this.arrivals;
        if (times.length < 2 || performance.now() - times.at(-1) > kStale_ms) {
            return undefined;
        }
        return ((times.length - 1) * 1000) / (times.at(-1) - times[0]);
    }

    updateChips() {
        const annotators = this.listAnnotators();
        this.chipList.hidden = annotators.length === 0;
        syncList(this.chipList, this.chips, annotators, ({ module }) => module, ({ module }) => {
            const chip = element("button", { class: "chip", "data-module": module, onclick: () => this.toggleAnnotations(module) }, module);
            return { element: chip, update: ({ shown }) => chip.setAttribute("aria-pressed", shown) };
        });
    }

    toggleAnnotations(module) {
        const annotator = this.listAnnotators().find((each) => each.module === module);
        this.shown[module] = !annotator?.shown;
        settings.set(`camera.${this.number}.annotations`, this.shown);
        this.follow();
        this.updateChips();
    }

    updateStatistics(subscriptions) {
        setText(this.statisticsTitle, `Subscribers (${subscriptions.length})`);
        syncList(this.rows, this.statistics, subscriptions, ({ name }) => name, () => new StatisticsRow());
    }
}

/** What the camera service has counted of one subscription. */
class StatisticsRow {
    constructor() {
        this.name = element("span", { class: "name" });
        this.size = element("span", { class: "facts" });
        const fact = (title, value, explanation) => element("div", { title: explanation ?? false }, element("dt", {}, title), value);
        this.delivered = element("dd");
        this.missed = element("dd");
        this.age = element("dd");
        this.interval = element("dd");
        this.element = element(
            "li",
            {},
            element("div", { class: "heading" }, this.name, this.size),
            element(
                "dl",
                {},
                fact("delivered", this.delivered),
                fact("missed", this.missed),
                fact("age, ms", this.age, "From capture to delivery: median / 99 % / maximum"),
                fact("interval, ms", this.interval, "Between two images: median / 99 % / maximum"),
            ),
        );
    }

    update({ name, size, colorSpace, delivered, missed, age, interval }) {
        const durations = (each) => (each ? [each.median, each.p99, each.max].map(formatDuration).join(" / ") : "–");
        setText(this.name, name);
        setText(this.size, size === undefined ? "" : `${size.replace("x", "×")} ${formatColorSpace(colorSpace)}`);
        setText(this.delivered, String(delivered ?? "–"));
        setText(this.missed, String(missed ?? "–"));
        setText(this.age, durations(age));
        setText(this.interval, durations(interval));
    }
}

/** In which size and colour space the server sends the picture to this page, where it lets the page choose. */
class ViewChoice {
    constructor(client, number) {
        this.client = client;
        this.names = { resolution: `/camera/${number}/image/resolution`, colorSpace: `/camera/${number}/image/color-space` };
        const select = (name, label) => element("select", { "aria-label": label, onchange: ({ target }) => client.setParameter(name, target.value) });
        this.resolution = select(this.names.resolution, "Size of the picture");
        this.colorSpace = select(this.names.colorSpace, "Colour space of the picture");
        const sizes = ["40x30", "80x60", "160x120", "320x240", "640x480", "1280x960", "2560x1920"];
        setOptions(this.resolution, sizes.map((size) => [size, size.replace("x", "×")]));
        setOptions(this.colorSpace, ["luma", "yuv422", "rgb", "bgr", "bgrx"].map((space) => [space, space]));
        this.element = element("div", { class: "choice" }, element("span", {}, "as"), this.resolution, this.colorSpace);
    }

    update() {
        const resolution = this.client.parameters.get(this.names.resolution);
        const colorSpace = this.client.parameters.get(this.names.colorSpace);
        this.element.hidden = resolution === undefined || colorSpace === undefined;
        if (!this.element.hidden) {
            if (document.activeElement !== this.resolution) this.resolution.value = resolution;
            if (document.activeElement !== this.colorSpace) this.colorSpace.value = colorSpace;
        }
    }
}

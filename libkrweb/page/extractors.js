// The extractor panel: subscribers, achieved rates, and buttons to subscribe and pause.

import { element, notify, setEmptyNote, setField, setOptions, setText, settings, syncList } from "./dom.js";
import { formatShort, formatResolution, formatTenths, kResolutions } from "./vision.js";

const kMyName = "web"; // subscriber name of this page
const kSlow = 0.85; // share of the requested rate below which an extractor is too slow

export class ExtractorsPanel {
    constructor(client, list, note) {
        this.client = client;
        this.list = list;
        this.note = note;
        this.views = new Map();
        this.states = new Map(); // by name; an extractor that is gone stays in the list, marked, until removed by the user
        client.subscribeJson("/extractors", ({ extractors }) => this.take(extractors));
        client.addEventListener("state", () => this.show());
    }

    find(name) {
        return this.states.get(name);
    }

    take(extractors) {
        for (const [name, state] of this.states) {
            this.states.set(name, { ...state, gone: true });
        }
        for (const state of extractors) {
            this.states.set(state.name, state);
        }
        this.show();
    }

    forget(name) {
        this.states.delete(name);
        this.show();
    }

    show() {
        const states = [...this.states.values()].sort((a, b) => (a.name < b.name ? -1 : 1));
        syncList(this.list, this.views, states, ({ name }) => name, ({ name }) => new ExtractorView(this, name));
        setEmptyNote(this.note, states.length === 0, "No extractors. Run a module, for example with kr serve --run MODULE.so.");
    }
}

class ExtractorView {
    constructor(panel, name) {
        this.panel = panel;
        this.client = panel.client;
        this.name = name;
        this.subscribers = new Map();
        this.build();
    }

    build() {
        const { name } = this;
        this.chip = element("span", { class: "state" });
        this.rate = element("dd");
        this.meter = element("meter", { min: 0, max: 1, low: kSlow, high: kSlow, optimum: 1, "aria-label": "Achieved rate as a share of the requested rate" });
        this.period = element("dd");
        this.precision = element("dd");
        const fact = (title, value, ...more) => element("div", {}, element("dt", {}, title), value, ...more);
        this.camera = element("input", { type: "number", min: 0, max: 99, step: 1, "aria-label": `Camera of ${name}` });
        this.camera.addEventListener("change", () => this.camera.value !== "" && this.call("setActiveCamera", { cameraId: Number(this.camera.value) }));
        this.resolution = element("select", { "aria-label": `Resolution of ${name}` });
        this.resolution.addEventListener("change", () => this.call("setResolution", { resolution: Number(this.resolution.value) }));
        this.vision = element(
            "div",
            { class: "fields" },
            element("label", {}, "Camera", this.camera),
            element("label", {}, "Size", this.resolution),
        );
        this.subscriberList = element("ul", { class: "subscribers" });
        this.nobody = element("p", { class: "hint" }, "No subscribers; it is not running.");

        const wanted = settings.get(`extractor.${name}`, { period: 100, precision: 1 });
        this.wantedPeriod = element("input", { type: "number", min: 1, max: 3600000, step: 1, value: wanted.period, required: true });
        this.wantedPrecision = element("input", { type: "number", min: 0, step: "any", value: wanted.precision, required: true });
        this.subscribe = element("button", { class: "primary", type: "submit" }, "Subscribe");
        this.unsubscribe = element("button", { type: "button", onclick: () => this.call("unsubscribe", { name: kMyName }) }, "Unsubscribe");
        this.pause = element("button", { type: "button", class: "pause", onclick: () => this.call("pause", { paused: this.state.paused ? 0 : 1 }) });
        this.forget = element("button", { type: "button", onclick: () => this.panel.forget(name) }, "Remove from this list");
        this.form = element(
            "form",
            { class: "subscription", onsubmit: (event) => this.subscribeAsWanted(event) },
            element("label", {}, "Period, ms", this.wantedPeriod),
            element("label", {}, "Precision", this.wantedPrecision),
            this.subscribe,
            this.unsubscribe,
            this.pause,
        );
        this.failure = element("p", { class: "failure" });
        this.element = element(
            "article",
            { class: "card extractor", "data-extractor": name },
            element("header", {}, element("h3", {}, name), this.chip),
            this.failure,
            element("dl", {}, fact("Rate", this.rate, this.meter), fact("Period", this.period), fact("Precision", this.precision)),
            this.vision,
            this.subscriberList,
            this.nobody,
            this.form,
            this.forget,
        );
    }

    /** Calls a method of the extractor. Its state shows the outcome; a refusal is reported. */
    async call(method, request) {
        try {
            const { value } = await this.client.call(`/${this.name}/${method}`, request);
            if (value === 0 || value === false) {
                notify(`${this.name} refused ${method}`);
            }
        } catch (error) {
            notify(`${this.name}: ${error.message}`);
        }
    }

    subscribeAsWanted(event) {
        event.preventDefault();
        const period = Number(this.wantedPeriod.value);
        const precision = Number(this.wantedPrecision.value);
        settings.set(`extractor.${this.name}`, { period, precision });
        this.call("subscribe", { name: kMyName, period, precision });
    }

    update(state) {
        this.state = state;
        const gone = state.gone || !this.client.connected;
        const readOnly = this.client.server.metadata?.readOnly === "true";
        const runs = state.period > 0;
        const [kind, text] = describeState(state, gone, runs);
        this.element.classList.toggle("gone", gone);
        this.chip.className = `state ${kind}`;
        setText(this.chip, text);
        setText(this.failure, state.failure ?? "");
        this.failure.hidden = !state.failure;

        const wantedRate = runs ? 1000 / state.period : undefined;
        const share = wantedRate && state.rate !== undefined && !gone ? Math.min(1, state.rate / wantedRate) : undefined;
        setText(this.rate, gone || state.rate === undefined ? "–" : `${formatTenths(state.rate)} /s`);
        this.meter.hidden = share === undefined;
        this.meter.value = share ?? 0;
        this.meter.title = share === undefined ? "" : `${formatTenths(state.rate)} of ${formatTenths(wantedRate)} images per second`;
        setText(this.period, runs ? `${state.period} ms` : "–");
        setText(this.precision, runs ? formatShort(state.precision) : "–");

        this.vision.hidden = state.camera === undefined && state.resolution === undefined;
        setField(this.camera, state.camera ?? 0);
        const options = kResolutions.map(([code]) => [code, formatResolution(code)]);
        if (state.resolution !== undefined && !kResolutions.some(([code]) => code === state.resolution)) {
            options.push([state.resolution, formatResolution(state.resolution)]);
        }
        setOptions(this.resolution, options);
        setField(this.resolution, state.resolution ?? 0);

        const subscribers = state.subscribers ?? [];
        syncList(this.subscriberList, this.subscribers, subscribers, ({ name }) => name, () => new SubscriberView());
        this.nobody.hidden = subscribers.length > 0 || gone;
        const subscribed = subscribers.some(({ name }) => name === kMyName);
        setText(this.subscribe, subscribed ? "Change" : "Subscribe");
        this.unsubscribe.hidden = !subscribed;
        this.pause.hidden = state.paused === undefined;
        setText(this.pause, state.paused ? "Resume" : "Pause");
        this.form.hidden = gone || readOnly;
        this.camera.disabled = gone || readOnly;
        this.resolution.disabled = gone || readOnly;
        this.forget.hidden = !(state.gone && this.client.connected);
    }
}

function describeState(state, gone, runs) {
    if (state.gone) return ["bad", "gone"];
    if (gone) return ["idle", "not known"];
    if (state.failure) return ["bad", "failed"];
    if (state.paused) return ["warn", "paused"];
    if (state.running === false || !runs) return ["idle", "idle"];
    return ["good", "running"];
}

class SubscriberView {
    constructor() {
        this.name = element("span", { class: "name" });
        this.facts = element("span", { class: "facts" });
        this.element = element("li", {}, this.name, this.facts);
    }

    update({ name, period, precision }) {
        setText(this.name, name === kMyName ? `${name} (this page)` : name);
        setText(this.facts, `${period} ms · precision ${formatShort(precision)}`);
    }
}

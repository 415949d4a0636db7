// The panel of memory keys: their values as they change, and plots of the numbers in them.

import { element, setEmptyNote, setText, settings, syncList } from "./dom.js";
import { Plot } from "./plot.js";
import { formatNumber, formatValue } from "./vision.js";

const kPrefix = "/memory/";
const kMaxNumbers = 16; // of an array that are shown one by one
const kRedraw_ms = 100;

/** The number at a path such as "[0]" or "[2][1]" of a value; "" is the value itself. */
function pick(value, path) {
    return [...path.matchAll(/\[(\d+)\]/g)].reduce((part, [, index]) => part?.[index], value);
}

export class MemoryPanel {
    constructor(client, { list, note, filter, plots, windows }) {
        this.client = client;
        this.parts = { list, note, filter, plots, windows };
        this.rows = new Map();
        this.plots = new Map(); // {key, path, plot, element, end} by name
        this.seconds = settings.get("plots.seconds", 30);
        // Only visible keys are subscribed to.
        this.observer = new IntersectionObserver((entries) => entries.forEach(({ target, isIntersecting }) => target.row.setVisible(isIntersecting)));
        filter.addEventListener("input", () => this.show());
        for (const seconds of [30, 60, 300]) {
            const text = seconds < 120 ? `${seconds} s` : `${seconds / 60} min`;
            windows.append(element("button", { class: "chip", "data-seconds": seconds, onclick: () => this.setWindow(seconds) }, text));
        }
        this.setWindow(this.seconds);
        settings.get("plots", []).forEach(({ key, path }) => this.addPlot(key, path));
        client.addEventListener("channels", () => this.show());
        client.addEventListener("state", () => this.show());
        setInterval(() => this.plots.forEach(({ plot }) => plot.draw()), kRedraw_ms);
        this.show();
    }

    show() {
        if (!this.client.connected && this.client.everConnected) {
            this.rows.forEach((row) => row.element.classList.add("gone"));
            return; // keeps showing the last values
        }
        const words = this.parts.filter.value.toLowerCase().split(/\s+/).filter(Boolean);
        const keys = [...this.client.channels.keys()]
            .filter((topic) => topic.startsWith(kPrefix))
            .map((topic) => topic.slice(kPrefix.length))
            .sort();
        const shown = keys.filter((key) => words.every((word) => key.toLowerCase().includes(word)));
        syncList(this.parts.list, this.rows, shown, (key) => key, (key) => new MemoryRow(this, key));
        setEmptyNote(this.parts.note, shown.length === 0, keys.length === 0 ? "The memory is empty." : `None of ${keys.length} keys match.`);
    }

    setWindow(seconds) {
        this.seconds = seconds;
        settings.set("plots.seconds", seconds);
        for (const button of this.parts.windows.children) {
            button.setAttribute("aria-pressed", Number(button.dataset.seconds) === seconds);
        }
        this.plots.forEach(({ plot }) => {
            plot.seconds = seconds;
            plot.draw();
        });
    }

    hasPlot(key, path) {
        return this.plots.has(key + path);
    }

    togglePlot(key, path) {
        if (this.hasPlot(key, path)) {
            this.removePlot(key + path);
        } else {
            this.addPlot(key, path);
        }
        settings.set("plots", [...this.plots.values()].map(({ key: each, path: where }) => ({ key: each, path: where })));
        this.rows.get(key)?.showPlotted();
    }

    addPlot(key, path) {
        const plot = new Plot(key + path, () => this.togglePlot(key, path));
        plot.seconds = this.seconds;
        const end = this.client.subscribeJson(kPrefix + key, ({ value }, time_ns) => plot.add(Number(time_ns / 1000n) / 1000, pick(value, path)));
        this.plots.set(key + path, { key, path, plot, end });
        this.parts.plots.append(plot.element);
        this.parts.windows.hidden = false;
    }

    removePlot(name) {
        const { plot, end } = this.plots.get(name);
        end();
        plot.element.remove();
        this.plots.delete(name);
        this.parts.windows.hidden = this.plots.size === 0;
    }
}

class MemoryRow {
    constructor(panel, key) {
        this.panel = panel;
        this.key = key;
        this.numbers = new Map(); // buttons by path
        this.value = element("div", { class: "value" });
        this.element = element("li", { "data-key": key }, element("div", { class: "name" }, key), this.value);
        this.element.row = this;
        panel.observer.observe(this.element);
    }

    remove() {
        this.panel.observer.unobserve(this.element);
        this.setVisible(false);
    }

    setVisible(visible) {
        if (visible && !this.end) {
            this.end = this.panel.client.subscribeJson(kPrefix + this.key, ({ value }) => this.take(value));
        } else if (!visible && this.end) {
            this.end();
            this.end = undefined;
        }
    }

    take(value) {
        this.newest = value;
        this.timer ??= setTimeout(() => {
            this.timer = undefined;
            this.show(this.newest);
        }, kRedraw_ms);
    }

    show(value) {
        this.element.classList.remove("gone");
        const isNumber = (part) => typeof part === "number";
        const isFlat = Array.isArray(value) && value.length > 0 && value.length <= kMaxNumbers && value.every((part) => isNumber(part) || part === null || typeof part === "string");
        if (isNumber(value)) {
            this.showParts([["", value]]);
        } else if (isFlat && value.some(isNumber)) {
            this.showParts(value.map((part, i) => [`[${i}]`, part]));
        } else {
            this.showText(value);
        }
    }

    showText(value) {
        const text = formatValue(value, 300);
        this.numbers.clear();
        if (this.text === undefined) {
            this.value.replaceChildren((this.text = element("code")));
        }
        setText(this.text, text);
    }

    showParts(parts) {
        const shape = parts.map(([path, part]) => path + typeof part).join();
        if (this.text !== undefined || shape !== this.shape) {
            this.text = undefined;
            this.shape = shape;
            this.numbers.clear();
            this.value.replaceChildren(...parts.map(([path, part]) => this.createPart(path, part)));
            this.showPlotted();
        }
        parts.forEach(([, part], i) => setText(this.value.children[i].lastElementChild, typeof part === "number" ? formatNumber(part) : formatValue(part, 60)));
    }

    createPart(path, part) {
        const label = element("span", { class: "path" }, path);
        if (typeof part !== "number") {
            return element("span", { class: "part" }, label, element("span"));
        }
        const button = element(
            "button",
            { class: "part", title: `Plot ${this.key}${path}`, "aria-label": `Plot ${this.key}${path}`, onclick: () => this.panel.togglePlot(this.key, path) },
            label,
            element("span"),
        );
        this.numbers.set(path, button);
        return button;
    }

    showPlotted() {
        this.numbers.forEach((button, path) => button.setAttribute("aria-pressed", this.panel.hasPlot(this.key, path)));
    }
}

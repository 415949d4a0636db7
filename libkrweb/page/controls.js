// The controls of a camera: sliders, switches and menus. They are parameters of the server.

import { element, setField, setOptions, setText, syncList } from "./dom.js";

export class ControlList {
    constructor(client, camera) {
        this.client = client;
        this.camera = camera;
        this.views = new Map();
        this.title = element("summary");
        this.fields = element("fieldset", { class: "controls" });
        this.element = element("details", { class: "control-part" }, this.title, this.fields);
        client.addEventListener("parameters", () => this.show());
    }

    update(controls) {
        this.controls = controls;
        this.show();
    }

    show() {
        const controls = this.controls ?? [];
        this.element.hidden = controls.length === 0;
        setText(this.title, `Controls (${controls.length})`);
        const key = ({ id, type }) => `${id} ${type}`;
        syncList(this.fields, this.views, controls, key, (control) => this.createControl(control));
        if (this.client.connected && controls.some((control) => !this.client.parameters.has(this.nameOf(control))) && !this.asked) {
            this.asked = true; // a camera that came after the connection
            this.client.requestParameters();
            setTimeout(() => (this.asked = false), 3000);
        }
    }

    setReadOnly(readOnly) {
        this.fields.disabled = readOnly;
    }

    nameOf(control) {
        return `/camera/${this.camera}/${control.name}`;
    }

    valueOf(control) {
        return this.client.parameters.get(this.nameOf(control)) ?? control.value ?? control.default ?? 0;
    }

    createControl(control) {
        const set = (value) => this.client.setParameter(this.nameOf(control), value);
        switch (control.type) {
            case "bool":
                return this.createSwitch(control, set);
            case "menu":
                return this.createMenu(control, set);
            case "button":
                return { element: element("div", { class: "control" }, element("button", { onclick: () => set(1) }, control.name)) };
            default:
                return this.createSlider(control, set);
        }
    }

    createSlider(control, set) {
        const attributes = { min: control.min, max: control.max, step: control.step || 1, "aria-label": control.name };
        const slider = element("input", { type: "range", ...attributes });
        const number = element("input", { type: "number", ...attributes });
        const reset = element("button", { class: "quiet", title: `Back to ${control.default}`, "aria-label": `Reset ${control.name}` }, "↺");
        // A slider that is being dragged sends its newest value, ten times a second at most.
        let timer;
        const send = (value) => {
            slider.value = value;
            number.value = value;
            this.held = { name: control.name, until: performance.now() + 1000 };
            timer ??= setTimeout(() => {
                timer = undefined;
                set(Number(slider.value));
            }, 100);
        };
        slider.addEventListener("input", () => send(slider.value));
        number.addEventListener("change", () => number.value !== "" && send(number.value));
        reset.addEventListener("click", () => send(control.default));
        return {
            element: element("div", { class: "control" }, element("span", { class: "name" }, control.name), slider, number, reset),
            update: (now) => {
                const value = this.valueOf(now);
                if (timer === undefined && !(this.held?.name === control.name && performance.now() < this.held.until)) {
                    if (slider.value !== String(value)) {
                        slider.value = value;
                    }
                    setField(number, value);
                }
                reset.hidden = now.default === undefined;
            },
        };
    }

    createSwitch(control, set) {
        const box = element("input", { type: "checkbox", role: "switch" });
        box.addEventListener("change", () => set(box.checked ? 1 : 0));
        return {
            element: element("label", { class: "control" }, element("span", { class: "name" }, control.name), box),
            update: (now) => (box.checked = Boolean(this.valueOf(now))),
        };
    }

    createMenu(control, set) {
        const select = element("select", { "aria-label": control.name });
        select.addEventListener("change", () => set(Number(select.value)));
        return {
            element: element("div", { class: "control" }, element("span", { class: "name" }, control.name), select),
            update: (now) => {
                setOptions(select, Object.entries(now.menu ?? {}));
                setField(select, this.valueOf(now));
            },
        };
    }
}

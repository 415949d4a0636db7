// The controls of a camera: sliders and switches. They are parameters of the server.

import { element, setField, setText, syncList } from "./dom.js";

export class ControlList {
    constructor(client) {
        this.client = client;
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
        syncList(this.fields, this.views, controls, ({ id }) => id, (control) => this.createControl(control));
        if (this.client.connected && controls.some((control) => !this.client.parameters.has(control.parameter)) && !this.asked) {
            this.asked = true; // for a camera added after connecting
            this.client.requestParameters();
            setTimeout(() => (this.asked = false), 3000);
        }
    }

    setReadOnly(readOnly) {
        this.fields.disabled = readOnly;
    }

    valueOf(control) {
        return this.client.parameters.get(control.parameter) ?? control.value;
    }

    createControl(control) {
        const set = (value) => this.client.setParameter(control.parameter, value);
        return control.type === "bool" ? this.createSwitch(control, set) : this.createSlider(control, set);
    }

    createSlider(control, set) {
        const attributes = { min: control.min, max: control.max, step: control.step || 1, "aria-label": control.name };
        const slider = element("input", { type: "range", ...attributes });
        const number = element("input", { type: "number", ...attributes });
        const reset = element("button", { class: "quiet", title: `Back to ${control.default}`, "aria-label": `Reset ${control.name}` }, "↺");
        // A slider that is being dragged sends its newest value, ten times a second at most.
        let timer;
        let heldUntil_ms = 0; // until then shows the user's value instead of the server's
        const send = (value) => {
            slider.value = value;
            number.value = value;
            heldUntil_ms = performance.now() + 1000;
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
                if (timer === undefined && performance.now() > heldUntil_ms) {
                    if (slider.value !== String(value)) {
                        slider.value = value;
                    }
                    setField(number, value);
                }
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
}

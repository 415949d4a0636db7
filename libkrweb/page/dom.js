// Elements of the page. Names and texts of modules enter the document as text only, never as markup.

/** Makes an element. Attributes that begin with "on" are listeners; children are elements or strings. */
export function element(tag, attributes = {}, ...children) {
    const made = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) {
        if (name.startsWith("on")) {
            made.addEventListener(name.slice(2), value);
        } else if (value === true) {
            made.setAttribute(name, "");
        } else if (value !== false && value !== undefined) {
            made.setAttribute(name, value);
        }
    }
    made.append(...children.filter((child) => child !== undefined));
    return made;
}

export function setText(node, text) {
    if (node.textContent !== text) {
        node.textContent = text;
    }
}

/** Sets what a field shows unless the user is at it. */
export function setField(field, value) {
    if (document.activeElement !== field && field.value !== String(value)) {
        field.value = value;
    }
}

/** Sets the choices of a <select>: pairs [value, text]. */
export function setOptions(select, options) {
    const wanted = JSON.stringify(options);
    if (select.dataset.options !== wanted) {
        select.dataset.options = wanted;
        select.replaceChildren(...options.map(([value, text]) => element("option", { value }, text)));
    }
}

/**
 * Makes the children of `container` those of `items`, in their order: `create(item)` returns an object with the member
 * `element`, which is kept in `views` by `keyOf(item)`, and `update(item)` shows the item.
 */
export function syncList(container, views, items, keyOf, create) {
    const keys = new Set(items.map(keyOf));
    for (const [key, view] of views) {
        if (!keys.has(key)) {
            view.element.remove();
            view.remove?.();
            views.delete(key);
        }
    }
    let place = container.firstElementChild;
    for (const item of items) {
        const key = keyOf(item);
        let view = views.get(key);
        if (!view) {
            view = create(item);
            views.set(key, view);
        }
        if (view.element === place) {
            place = place.nextElementSibling;
        } else {
            container.insertBefore(view.element, place);
        }
        view.update?.(item);
    }
}

/** A text that says that a list is empty, while it is. */
export function setEmptyNote(note, isEmpty, text) {
    note.hidden = !isEmpty;
    setText(note, text);
}

/** Shows a message for a few seconds. */
export function notify(text, kind = "bad") {
    const toasts = document.getElementById("toasts");
    const toast = element("div", { class: `toast ${kind}` }, element("span", {}, text));
    const close = element("button", { class: "quiet", "aria-label": "Close message", onclick: () => toast.remove() }, "×");
    toast.append(close);
    toasts.append(toast);
    while (toasts.children.length > 4) {
        toasts.firstElementChild.remove();
    }
    setTimeout(() => toast.remove(), 8000);
}

/** Remembers small settings of this browser; forgets them where that is not allowed. */
export const settings = {
    get(name, otherwise) {
        try {
            return JSON.parse(localStorage.getItem(`kr.${name}`)) ?? otherwise;
        } catch {
            return otherwise;
        }
    },
    set(name, value) {
        try {
            localStorage.setItem(`kr.${name}`, JSON.stringify(value));
        } catch {
            // private browsing
        }
    },
};

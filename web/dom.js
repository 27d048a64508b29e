// Elements without markup in strings: what comes from the device is only ever text.

// h("button", {class: "quiet", onclick: f}, "text", node, ...). Attributes that are false, null or
// undefined are left out; "on..." are listeners; value, checked and disabled are properties.
export function h(tag, attributes, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes ?? {})) {
        setAttribute(element, name, value);
    }
    element.append(...children.flat().filter((child) => child != null && child !== false));
    return element;
}

export function setAttribute(element, name, value) {
    if (name.startsWith("on")) {
        element.addEventListener(name.slice(2), value);
    } else if (name === "value" || name === "checked" || name === "disabled") {
        element[name] = value;
    } else if (value == null || value === false) {
        element.removeAttribute(name);
    } else {
        element.setAttribute(name, value === true ? "" : value);
    }
}

const SVG = "http://www.w3.org/2000/svg";

// A shape with attributes, within an <svg>.
export function svg(tag, attributes, ...children) {
    const element = document.createElementNS(SVG, tag);
    for (const [name, value] of Object.entries(attributes)) {
        element.setAttribute(name, value);
    }
    element.append(...children);
    return element;
}

// Strokes on a field of 20 by 20.
const ICONS = {
    account:
        "M10 10.5a3.5 3.5 0 1 0 0-7 3.5 3.5 0 0 0 0 7Zm-6.5 6.5c.7-3 3.3-4.5 6.5-4.5s5.8 1.5 6.5 4.5",
    alert: "M10 3.5 17.5 16.5h-15ZM10 8.5v3.5M10 14.2v.1",
    chevron: "m7.5 5 5 5-5 5",
    close: "m5 5 10 10M15 5 5 15",
    eye: "M2 10s3-5.5 8-5.5S18 10 18 10s-3 5.5-8 5.5S2 10 2 10Zm8 2.3a2.3 2.3 0 1 0 0-4.6 2.3 2.3 0 0 0 0 4.6Z",
    factory: "M3.5 10a6.5 6.5 0 1 0 2-4.7M3.5 3v3.5H7",
    menu: "M3 5.5h14M3 10h14M3 14.5h14",
    more: "M4.5 10h.1M10 10h.1M15.5 10h.1",
    remove: "M4 6h12M8 6V4h4v2M5.5 6l.7 10.5h7.6L14.5 6",
    search: "M9 14.5a5.5 5.5 0 1 0 0-11 5.5 5.5 0 0 0 0 11ZM13 13l4 4",
    undo: "M4 8h8a4 4 0 0 1 0 8H8M7.5 4.5 4 8l3.5 3.5",
};

export function icon(name) {
    return svg(
        "svg",
        {class: `icon icon-${name}`, viewBox: "0 0 20 20", "aria-hidden": "true"},
        svg("path", {d: ICONS[name]}),
    );
}

// A button that shows an icon and says `label` to those who do not see it.
export function iconButton(name, label, onclick, attributes = {}) {
    return h(
        "button",
        {
            type: "button",
            class: "icon-button",
            title: label,
            "aria-label": label,
            onclick,
            ...attributes,
        },
        icon(name),
    );
}

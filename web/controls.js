// The right control for each kind of parameter.
//
// createControl(parameter, place) gives {element, show(value)}: `show` puts a value into it without
// a word to anybody; what the user does goes to place.change(text). place.labels has the attributes
// that name and describe the control.
import {h, icon, iconButton, svg, setAttribute} from "./dom.js";
import {t, titleOf} from "./i18n.js";
import {boundsOf, decimalOf, stepped, textOf} from "./rules.js";

const MOST_STEPS = 1000n; // a slider with more cannot be aimed at
const MOST_SEGMENTS = 4; // options side by side; more of them, or longer ones, in a list
const MOST_LETTERS = 26;
const LONG_TEXT = 80;

export const wordOf = (word) =>
    /^[a-z][a-z0-9_]*$/.test(word) ? titleOf(word) : word || t("value.nothing");

export const isSwitch = ({type, options, value}) =>
    (type === "bool" || options.join() === "0,1") && (value === "0" || value === "1");

// A value in words, as a control shows it.
export function valueInWords(parameter, value) {
    if (value === null || value === undefined || value === "") {
        return t("value.empty");
    }
    if (isSwitch({...parameter, value})) {
        return t(value === "1" ? "value.on" : "value.off");
    }
    return parameter.options.includes(value) ? wordOf(value) : value;
}

export function createControl(parameter, place) {
    const {options, state, secret} = parameter;
    if (state) {
        return liveValue(parameter);
    }
    if (!place.editable) {
        return secret ? secretState(parameter) : plainValue(parameter);
    }
    if (secret) {
        return secretInput(parameter, place);
    }
    if (isSwitch(parameter)) {
        return switchInput(place);
    }
    const {min, max, step} = boundsOf(parameter);
    if (min !== null || max !== null || step !== null) {
        return options.length > 1 ? wordOrNumber(parameter, place) : numberInput(parameter, place);
    }
    if (options.length > 1) {
        const letters = options.map(wordOf).join("").length;
        const side = options.length <= MOST_SEGMENTS && letters <= MOST_LETTERS;
        return side ? segments(parameter, place) : choice(parameter, place);
    }
    return parameter.type === "int" || parameter.type === "float"
        ? numberInput(parameter, place)
        : textInput(parameter, place);
}

// --- what is only shown

function plainValue(parameter) {
    const element = h("span", {class: "plain"});
    return {
        element,
        show(value) {
            element.textContent = valueInWords(parameter, value);
            element.classList.toggle("faint", value === "");
        },
    };
}

function secretState(parameter) {
    const element = h("span", {class: "plain"});
    const show = () => (element.textContent = t(parameter.set ? "secret.set" : "secret.unset"));
    return {element, show};
}

// A state of the device: its value, and as a curve where it came from.
function liveValue(parameter) {
    const line = svg("polyline", {points: ""});
    const curve = svg(
        "svg",
        {class: "curve", viewBox: "0 0 100 24", preserveAspectRatio: "none", "aria-hidden": "true"},
        line,
    );
    const value = h("span", {class: "live-value"});
    const element = h("span", {class: "live"}, curve, value);
    return {
        element,
        show(text, history = []) {
            value.textContent = text === "" ? t("value.none") : valueInWords(parameter, text);
            value.classList.toggle("faint", text === "");
            line.setAttribute("points", pointsOf(history));
            curve.toggleAttribute("hidden", history.length < 2);
        },
    };
}

function pointsOf(history) {
    if (history.length < 2) {
        return "";
    }
    const low = Math.min(...history);
    const span = Math.max(...history) - low || 1;
    const x = (place) => (place * 100) / (history.length - 1);
    return history
        .map(
            (value, place) =>
                `${x(place).toFixed(1)},${(22 - ((value - low) / span) * 20).toFixed(1)}`,
        )
        .join(" ");
}

// --- what can be changed

// Puts the value into a field, unless it stands there: that would move the cursor.
function put(field, value) {
    if (field.value !== value) {
        field.value = value;
    }
}

function switchInput(place) {
    const box = h("input", {
        type: "checkbox",
        role: "switch",
        class: "switch",
        ...place.labels,
        onchange: () => place.change(box.checked ? "1" : "0"),
    });
    const word = h("span", {class: "switch-word", "aria-hidden": "true"});
    return {
        element: h("label", {class: "switch-field"}, box, word),
        show(value) {
            box.checked = value === "1";
            word.textContent = t(value === "1" ? "value.on" : "value.off");
        },
    };
}

function segments(parameter, place) {
    const group = `segments ${parameter.name}`;
    const boxes = parameter.options.map((word) =>
        h("input", {
            type: "radio",
            name: group,
            value: word,
            onchange: () => place.change(word),
        }),
    );
    const element = h(
        "div",
        {class: "segments", role: "radiogroup", ...place.labels},
        boxes.map((box) => h("label", {}, box, h("span", {}, wordOf(box.value)))),
    );
    return {element, show: (value) => boxes.forEach((box) => (box.checked = box.value === value))};
}

function choice(parameter, place) {
    const options = parameter.options.map((word) => h("option", {value: word}, wordOf(word)));
    const other = h("option", {hidden: true});
    const element = h(
        "select",
        {...place.labels, onchange: () => place.change(element.value)},
        options,
        other,
    );
    return {
        element: h("span", {class: "select"}, element, icon("chevron")),
        show(value) {
            other.value = value;
            other.textContent = parameter.options.includes(value)
                ? ""
                : valueInWords(parameter, value);
            element.value = value;
        },
    };
}

// A text that says the same number as the present or the factory value is written as that one.
function asWritten(parameter, text) {
    const same = (other) => decimalOf(other) !== null && decimalOf(other) === decimalOf(text);
    return [parameter.value, parameter.default].find(same) ?? text;
}

// A slider's step; null when a slider is of no use.
function sliderStep({type}, {min, max, step}) {
    if (min === null || max === null || min === max) {
        return null;
    }
    const by = step ?? (type === "float" ? (max - min) / 100n : decimalOf("1"));
    return by > 0n && (max - min) / by <= MOST_STEPS ? by : null;
}

function numberInput(parameter, place) {
    const bounds = boundsOf(parameter);
    const step = sliderStep(parameter, bounds);
    const field = h("input", {
        type: "text",
        inputmode: parameter.type === "int" && !(bounds.min < 0n) ? "numeric" : "text",
        class: "number",
        autocomplete: "off",
        ...place.labels,
        oninput: () => place.change(field.value),
    });
    const slider =
        step &&
        h("input", {
            type: "range",
            min: textOf(bounds.min),
            max: textOf(bounds.max),
            step: textOf(step),
            "aria-label": place.labels["aria-label"],
            oninput: () => place.change(asWritten(parameter, slider.value)),
        });
    field.addEventListener("keydown", (event) => {
        const direction = {ArrowUp: 1, ArrowDown: -1}[event.key];
        if (direction) {
            event.preventDefault();
            place.change(asWritten(parameter, stepped(parameter, field.value, direction)));
        }
    });
    return {
        element: h("span", {class: "number-field"}, slider, field),
        show(value) {
            put(field, value);
            if (slider && decimalOf(value) !== null) {
                put(slider, value);
                const share = (slider.value - slider.min) / (slider.max - slider.min);
                slider.style.setProperty("--share", share);
            }
        },
    };
}

function wordOrNumber(parameter, place) {
    const words = h(
        "datalist",
        {id: `${place.id}-words`},
        parameter.options.map((word) => h("option", {value: word})),
    );
    const field = h("input", {
        type: "text",
        list: words.id,
        autocomplete: "off",
        ...place.labels,
        oninput: () => place.change(field.value),
    });
    return {
        element: h("span", {class: "text-field"}, field, words),
        show: (value) => put(field, value),
    };
}

function textInput(parameter, place) {
    const long = parameter.value.includes("\n") || parameter.value.length > LONG_TEXT;
    const attributes = {
        ...place.labels,
        autocomplete: "off",
        spellcheck: "false",
        oninput: () => place.change(field.value),
    };
    const field = long
        ? h("textarea", {rows: 3, ...attributes})
        : h("input", {type: "text", ...attributes});
    return {element: h("span", {class: "text-field"}, field), show: (value) => put(field, value)};
}

// The secret itself is never here: what can be seen is what was typed. null: nothing typed.
function secretInput(parameter, place) {
    const field = h("input", {
        type: "password",
        autocomplete: "new-password",
        ...place.labels,
        oninput: () => place.change(field.value || null),
    });
    const eye = iconButton(
        "eye",
        t("secret.show"),
        () => {
            const hidden = field.type === "password";
            field.type = hidden ? "text" : "password";
            setAttribute(eye, "aria-pressed", String(hidden));
        },
        {"aria-pressed": "false"},
    );
    const remove = iconButton("remove", t("secret.remove"), () => place.change(""));
    return {
        element: h("span", {class: "secret-field"}, field, eye, remove),
        show(value, _, fresh) {
            put(field, value ?? "");
            remove.hidden = !fresh.set || value === "";
            field.placeholder = t(
                value === "" ? "secret.removed" : fresh.set ? "secret.set" : "secret.unset",
            );
        },
    };
}

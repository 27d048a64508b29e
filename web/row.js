// One parameter in the list: its name, its control, and what there is to say about it.
import {h, iconButton} from "./dom.js";
import {t, titlesOf} from "./i18n.js";
import {createControl, valueInWords} from "./controls.js";
import {ruleInWords} from "./rules.js";
import * as store from "./store.js";

const calm = matchMedia("(prefers-reduced-motion: reduce)");
let rows = 0; // made so far, for ids

// The text with the words of the search marked in it.
function marked(text, words) {
    const pattern = words.map((word) => word.replace(/[^\p{L}\p{N}\s]/gu, "\\$&")).join("|");
    if (!pattern) {
        return [text];
    }
    return text
        .split(new RegExp(`(${pattern})`, "giu"))
        .map((part, place) => (place % 2 ? h("mark", {}, part) : part));
}

// The last title of a name, and for an instance's own value its group's.
function titleOf(name) {
    return titlesOf(name).at(-1);
}

// `editable`: the account may set. `words`: those of the search, to be marked.
export function createRow(name, editable, words) {
    const parameter = store.parameters.get(name);
    rows += 1;
    const id = `row-${rows}`;
    const writable = editable && parameter.access === "rw";
    const control = createControl(parameter, {
        id,
        editable: writable,
        labels: {"aria-label": titleOf(name), "aria-describedby": `${id}-hint ${id}-note`},
        change: (value) => (value === null ? store.undo(name) : store.edit(name, value)),
    });
    const undo = iconButton("undo", t("row.undo", {title: titleOf(name)}), () => store.undo(name));
    const factory = iconButton("factory", "", () =>
        store.edit(name, store.parameters.get(name).default),
    );
    const note = h("div", {class: "note", id: `${id}-note`, "aria-live": "polite"});
    const dot = h(
        "span",
        {class: "mark-changed", title: t("row.changed")},
        h("span", {class: "unseen"}, t("row.changed")),
    );
    const element = h(
        "div",
        {class: "row", role: "group", "aria-labelledby": `${id}-title`},
        h(
            "div",
            {class: "row-label"},
            h(
                "div",
                {class: "row-title"},
                h("span", {id: `${id}-title`}, marked(titleOf(name), words)),
                dot,
            ),
            h(
                "div",
                {class: "row-hint", id: `${id}-hint`},
                h("code", {}, marked(name, words)),
                h("span", {}, ruleInWords(parameter)),
            ),
        ),
        h("div", {class: "row-control"}, control.element),
        h("div", {class: "row-actions"}, undo, factory),
        note,
    );
    const row = {name, element, control, note, dot, undo, factory, writable};
    updateRow(row, false);
    return row;
}

// `live`: what is new may have come from elsewhere, and is pointed at.
export function updateRow(row, live = true) {
    const {name, element, control} = row;
    const parameter = store.parameters.get(name);
    const edit = store.edits.get(name);
    const value = edit ? edit.value : parameter.value;
    const problem = store.problemOf(name);
    control.show(
        parameter.secret ? (edit?.value ?? null) : (value ?? ""),
        store.histories.get(name),
        parameter,
    );
    if (live && !edit && row.value !== undefined && row.value !== value && !parameter.state) {
        pointAt(row.element);
    }
    row.value = value;
    element.classList.toggle("edited", Boolean(edit));
    element.classList.toggle("conflict", Boolean(edit?.conflict));
    element.classList.toggle("broken", problem !== "");
    for (const field of control.element.querySelectorAll("[aria-describedby]")) {
        field.setAttribute("aria-invalid", String(problem !== ""));
    }
    updateMarks(row, parameter, edit, value);
    updateNote(row, parameter, edit, problem);
}

function pointAt(element) {
    if (!calm.matches) {
        element.animate([{backgroundColor: "var(--point)"}, {}], {
            duration: 1200,
            easing: "ease-out",
        });
    }
}

function updateMarks(row, parameter, edit, value) {
    const known = !parameter.secret && parameter.default !== null && !parameter.state;
    const differs = known ? value !== parameter.default : Boolean(parameter.changed);
    const factory = t("row.factory", {value: valueInWords(parameter, parameter.default)});
    row.dot.hidden = !differs;
    row.undo.hidden = !edit;
    row.factory.hidden = !(row.writable && known && differs);
    if (row.factory.title !== factory) {
        row.factory.title = factory;
        row.factory.setAttribute("aria-label", factory);
    }
}

// What is said is only replaced when it is another: it is read aloud.
function updateNote(row, parameter, edit, problem) {
    const now = valueInWords(parameter, parameter.value);
    const kind = edit?.conflict
        ? "conflict"
        : problem
          ? "problem"
          : edit && !parameter.secret
            ? "was"
            : "";
    const said = `${kind} ${kind === "problem" ? problem : now}`;
    if (row.said === said) {
        return;
    }
    row.said = said;
    const parts = {
        conflict: () => conflictNote(row.name, parameter, now),
        problem: () => [h("span", {}, problem)],
        was: () => [h("span", {}, t("row.was", {value: now}))],
        "": () => [],
    };
    row.note.className = `note ${kind}`;
    row.note.replaceChildren(...parts[kind]());
}

function conflictNote(name, parameter, now) {
    const words = parameter.secret ? t("conflict.secret") : t("conflict.value", {value: now});
    const button = (label, act) =>
        h("button", {type: "button", class: "small", onclick: () => act(name)}, label);
    return [
        h("span", {}, words),
        h(
            "span",
            {class: "note-actions"},
            button(t("conflict.mine"), store.keepMine),
            button(t("conflict.theirs"), store.undo),
        ),
    ];
}

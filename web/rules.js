// May a value be set, and if not why: the rules of the tree, checked while somebody types. The
// server checks again and has the last word.
import {t} from "./i18n.js";

const DIGITS = 18; // on either side of the point; numbers are BigInts in units of 10^-18
const ONE = 10n ** BigInt(DIGITS);

// "-" or not, digits, maybe "." and digits; null for all else.
export function decimalOf(text) {
    const parts = /^(-?)(\d+)(?:\.(\d+))?$/.exec(text ?? "");
    if (!parts) {
        return null;
    }
    const whole = parts[2].replace(/^0+(?=\d)/, "");
    const fraction = (parts[3] ?? "").replace(/0+$/, "");
    if (whole.length > DIGITS || fraction.length > DIGITS) {
        return null;
    }
    const number = BigInt(whole) * ONE + BigInt(fraction.padEnd(DIGITS, "0"));
    return parts[1] ? -number : number;
}

export function textOf(number) {
    const sign = number < 0n ? "-" : "";
    const absolute = number < 0n ? -number : number;
    const fraction = String(absolute % ONE)
        .padStart(DIGITS, "0")
        .replace(/0+$/, "");
    return sign + absolute / ONE + (fraction ? `.${fraction}` : "");
}

// The bounds as numbers, null where there is none. A text has none: its range may mean a length.
export function boundsOf(parameter) {
    const isText = parameter.type === "string" || parameter.type === "password";
    const number = (text) => (isText ? null : decimalOf(text));
    return {min: number(parameter.min), max: number(parameter.max), step: number(parameter.step)};
}

const isNumeric = ({min, max, step}) => min !== null || max !== null || step !== null;

function rangeInWords(parameter, {min, max}) {
    if (min === null) {
        return max === null ? "" : t("rule.at_most", {max: parameter.max});
    }
    return max === null
        ? t("rule.at_least", {min: parameter.min})
        : t("rule.range", {min: parameter.min, max: parameter.max});
}

function brokenNumber(parameter, bounds, value) {
    const {min, max, step} = bounds;
    const number = decimalOf(value);
    const range = rangeInWords(parameter, bounds);
    if (number === null) {
        return range ? t("rule.number_in", {range}) : t("rule.number");
    }
    if ((min !== null && number < min) || (max !== null && number > max)) {
        return t("rule.must_be", {range});
    }
    if (parameter.type === "int" && number % ONE !== 0n) {
        return t("rule.whole");
    }
    const base = min ?? 0n;
    if (step === null || (number - base) % step === 0n) {
        return "";
    }
    return base === 0n
        ? t("rule.multiple", {step: parameter.step})
        : t("rule.multiple_from", {min: parameter.min, step: parameter.step});
}

// Empty when the value may be set; otherwise the rule that it breaks, in words.
export function brokenRule(parameter, value) {
    const {options} = parameter;
    const bounds = boundsOf(parameter);
    const numeric = isNumeric(bounds);
    const number = decimalOf(value);
    if (options.includes(value)) {
        return numeric && number !== null ? brokenNumber(parameter, bounds, value) : "";
    }
    const numbersAmong = options.some((word) => decimalOf(word) !== null);
    if (options.length > 1 && (!numeric || numbersAmong || number === null)) {
        const range = numbersAmong ? "" : rangeInWords(parameter, bounds);
        const words = options.map((word) => word || t("rule.nothing")).join(", ");
        return range ? t("rule.one_of_or", {words, range}) : t("rule.one_of", {words});
    }
    return numeric ? brokenNumber(parameter, bounds, value) : "";
}

// The rule of a parameter in few words, for below its name; empty when everything goes.
export function ruleInWords(parameter) {
    const bounds = boundsOf(parameter);
    const parts = [];
    const range = rangeInWords(parameter, bounds);
    if (range) {
        parts.push(range);
    }
    if (bounds.step !== null && bounds.step !== ONE) {
        parts.push(t("rule.step", {step: parameter.step}));
    }
    return parts.join(", ");
}

// The nearest permitted number above (direction 1) or below (-1) `value`, as a text.
export function stepped(parameter, value, direction) {
    const {min, max, step} = boundsOf(parameter);
    const by = step ?? ONE;
    const base = min ?? 0n;
    const from = decimalOf(value);
    if (from === null) {
        return textOf(base);
    }
    const over = (((from - base) % by) + by) % by;
    let to = direction > 0 ? from - over + by : from - (over || by);
    to = max !== null && to > max ? max : to;
    to = min !== null && to < min ? min : to;
    return textOf(to);
}

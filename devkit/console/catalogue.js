// What the host says about its requests and codes. All that the page knows of them comes from
// here, so that it suits whatever host it was served by.

let content = { requests: [], codes: [] };

export function setCatalogue(json) {
    content = json;
}

export function requests() {
    return content.requests;
}

export function findRequest(name) {
    return content.requests.find((request) => request.name === name);
}

// A code of the plug-in or the engine, as an answer has it; undefined for others.
export function findCode(code) {
    return content.codes.find((row) => String(row.code) === code);
}

export function findParameter(request, name) {
    return request.parameters.find((parameter) => parameter.name === name);
}

// The parameter or result that is a key-exchange session; undefined if there is none.
export function handleOf(parametersOrResults) {
    return parametersOrResults.find(({ form }) => form === 'handle');
}

// [[group, requests]], in the catalogue's order.
export function groups() {
    const byName = new Map();
    for (const request of content.requests) {
        if (!byName.has(request.group)) byName.set(request.group, []);
        byName.get(request.group).push(request);
    }
    return [...byName];
}

// The value that a request's parameter has for a name, such as "AES-256": engines number
// differently.
export function choice(requestName, parameterName, text) {
    const choices = findParameter(findRequest(requestName), parameterName).choices ?? [];
    const found = choices.find((row) => row.text === text);
    if (!found) throw new Error(`${parameterName} has no value ${text}`);
    return found.value;
}

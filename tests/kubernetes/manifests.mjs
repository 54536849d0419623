// Reads packaging/kubernetes and says what is wrong with it, without a cluster: each document
// against Kubernetes' own schemas, and what the documents say of each other and of the host.

import { readdirSync, readFileSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import yaml from 'js-yaml';
import * as apps from 'kubernetes-models/apps/v1';
import * as networking from 'kubernetes-models/networking.k8s.io/v1';
import * as policy from 'kubernetes-models/policy/v1';
import * as core from 'kubernetes-models/v1';

export const folder = fileURLToPath(new URL('../../packaging/kubernetes', import.meta.url));

const kinds = {
    'v1/Namespace': core.Namespace,
    'v1/Secret': core.Secret,
    'v1/Service': core.Service,
    'apps/v1/StatefulSet': apps.StatefulSet,
    'networking.k8s.io/v1/NetworkPolicy': networking.NetworkPolicy,
    'policy/v1/PodDisruptionBudget': policy.PodDisruptionBudget,
};

// The documents of each file, by the file's name, without what anchors made common to two places.
export function readManifests() {
    const files = {};
    for (const name of readdirSync(folder).filter((file) => file.endsWith('.yaml')))
        files[name] = yaml.loadAll(readFileSync(path.join(folder, name), 'utf8'));
    return JSON.parse(JSON.stringify(files));
}

// ---- Schemas.

// The same value, which notes each field that is read.
function watched(value, read, at) {
    if (typeof value !== 'object' || value === null) return value;
    return new Proxy(value, {
        get(target, key) {
            if (typeof key === 'symbol' || !Object.hasOwn(target, key)) return Reflect.get(target, key);
            read.add(`${at}/${key}`);
            return watched(target[key], read, `${at}/${key}`);
        },
    });
}

function fieldsOf(value, at = '') {
    if (typeof value !== 'object' || value === null) return [];
    return Object.entries(value).flatMap(([key, child]) => [`${at}/${key}`, ...fieldsOf(child, `${at}/${key}`)]);
}

// The schemas allow fields that they do not know; the validator reads those alone that they know.
// So one that was not read is misspelt, or stands in the wrong place.
function schemaProblems(document) {
    const model = kinds[`${document.apiVersion}/${document.kind}`];
    if (!model) return [`no schema for ${document.apiVersion}/${document.kind}`];
    const read = new Set();
    try {
        model.prototype.validate.call(watched(document, read, ''));
    } catch (error) {
        return [error.message];
    }
    const unknown = fieldsOf(document).filter((field) => !read.has(field));
    return unknown.map((field) => `unknown field ${field}`);
}

// ---- What belongs together.

// "--name=value" of the arguments, each with all of its values.
export function optionsOf(container) {
    const options = {};
    for (const argument of container.args.slice(1)) {
        const [name, ...value] = argument.split('=');
        (options[name] ??= []).push(value.join('='));
    }
    return options;
}

const isPartOf = (part, whole) => Object.entries(part).every(([key, value]) => whole?.[key] === value);

function checkNamesAndLabels({ set, services, all, say }) {
    const labels = set.spec.template.metadata.labels;
    const namespace = all.find((document) => document.kind === 'Namespace').metadata.name;
    const hasPods = (selector, of) => {
        if (!selector || !isPartOf(selector, labels)) say(`${of} selects no pod of the set`);
    };

    for (const { kind, metadata } of all)
        if (kind !== 'Namespace' && metadata.namespace !== namespace)
            say(`${kind} ${metadata.name} is not in the namespace ${namespace}`);
    hasPods(set.spec.selector.matchLabels, 'StatefulSet');
    for (const constraint of set.spec.template.spec.topologySpreadConstraints)
        hasPods(constraint.labelSelector.matchLabels, `spread over ${constraint.topologyKey}`);
    for (const service of services) hasPods(service.spec.selector, `Service ${service.metadata.name}`);
    for (const { kind, spec } of all) {
        if (kind === 'PodDisruptionBudget') hasPods(spec.selector.matchLabels, kind);
        if (kind === 'NetworkPolicy') hasPods(spec.podSelector.matchLabels, kind);
    }
    const nodes = services.find((service) => service.metadata.name === set.spec.serviceName);
    if (nodes?.spec.clusterIP !== 'None') say(`no headless Service ${set.spec.serviceName}`);
    else if (!nodes.spec.publishNotReadyAddresses) say('a lame duck loses its name');
    return { namespace };
}

function checkPorts({ container, services, all, options, say }) {
    const named = Object.fromEntries(container.ports.map((port) => [port.name, port.containerPort]));
    const isPort = (port) => Object.hasOwn(named, port) || Object.values(named).includes(port);

    const listened = Number(options['--listen'][0].split(':').pop());
    if (!Object.values(named).includes(listened)) say(`nobody names port ${listened}, which the host listens on`);
    for (const service of services)
        for (const { targetPort } of service.spec.ports)
            if (!isPort(targetPort)) say(`Service ${service.metadata.name} leads to a port ${targetPort}`);
    for (const { spec } of all.filter((document) => document.kind === 'NetworkPolicy'))
        for (const { port } of spec.ingress.flatMap((rule) => rule.ports))
            if (!isPort(port)) say(`NetworkPolicy opens a port ${port}`);
    for (const [name, { httpGet }] of probesOf(container))
        if (!isPort(httpGet.port)) say(`${name} asks a port ${httpGet.port}`);
}

export const probesOf = (container) => ['startupProbe', 'readinessProbe', 'livenessProbe']
    .map((name) => [name, container[name]]);

function checkProbes({ container, options, host, say }) {
    const scheme = options['--tls-cert'] ? 'HTTPS' : 'HTTP';
    for (const [name, probe] of probesOf(container)) {
        const { path: asked, httpHeaders } = probe.httpGet;
        if (!host.openPaths.includes(asked)) say(`${name} asks ${asked}, which the host has not without a token`);
        if (probe.httpGet.scheme !== scheme) say(`${name} does not ask by ${scheme}`);
        if (!httpHeaders?.some((header) => header.name === 'Host' && header.value === 'localhost'))
            say(`${name} does not ask for localhost`);
    }
}

// A file that an option names, and the key of a Secret behind it.
function checkFiles({ set, container, secrets, options, say }) {
    const { volumes } = set.spec.template.spec;
    for (const mount of container.volumeMounts)
        if (!volumes.some((volume) => volume.name === mount.name)) say(`no volume ${mount.name}`);
    for (const volume of volumes) {
        if (!container.volumeMounts.some((mount) => mount.name === volume.name)) say(`nobody mounts ${volume.name}`);
        if (volume.secret && volume.secret.defaultMode !== 0o440) say(`${volume.name} is not of mode 0440`);
    }
    for (const option of ['--tls-cert', '--tls-key', '--token-file']) {
        for (const file of options[option] ?? []) {
            const mount = container.volumeMounts.find(({ mountPath }) => path.dirname(file) === mountPath);
            const volume = volumes.find(({ name }) => name === mount?.name);
            const secret = secrets.find(({ metadata }) => metadata.name === volume?.secret?.secretName);
            if (!Object.hasOwn(secret?.stringData ?? {}, path.basename(file))) say(`no Secret has ${option} ${file}`);
        }
    }
    for (const secret of secrets)
        for (const value of Object.values(secret.stringData ?? {}))
            if (value !== 'REPLACE') say(`Secret ${secret.metadata.name} is not a placeholder`);
}

function checkOptions({ set, services, container, namespace, options, host, say }) {
    for (const name of Object.keys(options))
        if (!host.help.match(new RegExp(`(^|\\s)${name}(\\s|$)`, 'm'))) say(`the host has no option ${name}`);
    const environment = container.env.map(({ name }) => name);
    for (const [, name] of container.args.join(' ').matchAll(/\$\((\w+)\)/g))
        if (!environment.includes(name)) say(`nobody sets ${name}`);
    const node = container.env.find(({ name }) => options['--node']?.[0] === `$(${name})`);
    if (node?.valueFrom?.fieldRef?.fieldPath !== 'metadata.name') say('a node is not called like its pod');
    if (!options['--workers']) say('there would be a worker for each processor of the machine');

    const seconds = ['--lame-duck-seconds', '--drain-seconds'].map((name) => Number(options[name]?.[0]));
    const grace = set.spec.template.spec.terminationGracePeriodSeconds;
    if (!(seconds[0] + seconds[1] < grace)) say(`${grace} s are too short for ${seconds.join(' s and ')} s`);
    for (const { metadata, spec } of services) {
        const name = `${spec.clusterIP === 'None' ? '$(POD_NAME).' : ''}${metadata.name}.${namespace}.svc`;
        if (!options['--allow-host'].includes(name)) say(`the host is not known as ${name}`);
    }
}

function checkRights({ set, container, host, say }) {
    const pod = set.spec.template.spec;
    const { securityContext: own } = container;
    const must = {
        'not root': pod.securityContext.runAsNonRoot === true,
        'the image\'s user': [pod.securityContext.runAsUser, pod.securityContext.runAsGroup,
            pod.securityContext.fsGroup].every((id) => id === host.imageUser),
        'system calls filtered': pod.securityContext.seccompProfile.type === 'RuntimeDefault',
        'no more rights later': own.allowPrivilegeEscalation === false,
        'a root that nobody writes': own.readOnlyRootFilesystem === true,
        'no capabilities': own.capabilities.drop.includes('ALL') && !own.capabilities.add,
        'no account of the cluster\'s': pod.automountServiceAccountToken === false,
        'memory that is limited': Boolean(container.resources.limits.memory),
    };
    for (const [what, holds] of Object.entries(must)) if (!holds) say(`the pod has not: ${what}`);
}

function checkTheRest({ files, all, set, container, host, say }) {
    if (container.image !== `corvane-host:${host.version}`) say(`the image is not of ${host.version}`);
    const { spec: budget } = all.find((document) => document.kind === 'PodDisruptionBudget');
    if (!(budget.maxUnavailable >= 1 && budget.maxUnavailable < set.spec.replicas))
        say('machines cannot be emptied, or all at once');
    const { spec: network } = all.find((document) => document.kind === 'NetworkPolicy');
    if (!network.policyTypes.includes('Egress') || network.egress.length > 0) say('nodes may ask others');
    if (network.ingress.some((rule) => !rule.from?.length)) say('everybody may ask');

    const [kustomization] = files['kustomization.yaml'];
    const others = Object.keys(files).filter((name) => !['kustomization.yaml', 'secrets.yaml'].includes(name));
    if ([...kustomization.resources].sort().join() !== [...others].sort().join())
        say('kustomization.yaml does not list the other files');
    const [image] = kustomization.images;
    if (`${image.name}:${image.newTag}` !== container.image) say('kustomization.yaml replaces another image');
}

// What is wrong with `files`, as readManifests gives them; empty if all is well. `host` is what
// they must fit: {help, version, openPaths, imageUser}.
export function problems(files, host) {
    const found = [];
    const all = Object.entries(files).filter(([name]) => name !== 'kustomization.yaml').flatMap(([, each]) => each);
    for (const document of all)
        for (const problem of schemaProblems(document)) found.push(`${document.kind}: ${problem}`);
    if (found.length > 0) return found;

    const of = (kind) => all.filter((document) => document.kind === kind);
    const [set] = of('StatefulSet');
    const [container] = set.spec.template.spec.containers;
    const about = {
        files, host, all, set, container, services: of('Service'), secrets: of('Secret'),
        options: optionsOf(container), say: (problem) => found.push(problem),
    };
    const { namespace } = checkNamesAndLabels(about);
    checkPorts(about);
    checkProbes(about);
    checkFiles(about);
    checkOptions({ ...about, namespace });
    checkRights(about);
    checkTheRest(about);
    return found;
}

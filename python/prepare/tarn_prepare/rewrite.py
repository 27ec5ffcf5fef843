"""Changes to a graph that leave what it computes as it was."""

import numpy as np
from onnx import helper, numpy_helper

from . import model as models


def rename_tensor(graph, old, new):
    """In all nodes, but not in the lists of inputs and outputs."""
    for node in graph.node:
        for names in (node.input, node.output):
            for i, name in enumerate(names):
                if name == old:
                    names[i] = new
        for inner in models.subgraphs(node):
            rename_tensor(inner, old, new)
            for value in inner.output:
                if value.name == old:
                    value.name = new


def rename_port(model, old, new):
    rename_tensor(model.graph, old, new)
    for values in (model.graph.input, model.graph.output):
        for value in values:
            if value.name == old:
                value.name = new


def unused_name(model, wish):
    names = {name for node in model.graph.node for name in node.output}
    names.update(value.name for value in model.graph.input)
    names.update(tensor.name for tensor in model.graph.initializer)
    while wish in names:
        wish += "_"
    return wish


def add_constant(model, wish, array):
    name = unused_name(model, wish)
    model.graph.initializer.append(numpy_helper.from_array(array, name))
    return name


def set_constant(model, name, array):
    """Makes an input a constant."""
    remove(model.graph.input, lambda value: value.name == name)
    remove(model.graph.initializer, lambda tensor: tensor.name == name)
    model.graph.initializer.append(numpy_helper.from_array(array, name))


def remove(items, condition):
    for item in [item for item in items if condition(item)]:
        items.remove(item)


def name_nodes(model):
    """Gives every node a name of its own, by which the engine can blame it."""
    names = set()
    for i, node in enumerate(model.graph.node):
        if not node.name or node.name in names:
            node.name = f"{node.op_type}_{i}"
        names.add(node.name)


def set_dims(value, dims):
    tensor = value.type.tensor_type
    tensor.ClearField("shape")
    for dim in dims:
        key = "dim_param" if isinstance(dim, str) else "dim_value"
        tensor.shape.dim.add(**{key: dim})


def inline_ifs(model):
    """Puts the branch taken in place of every If whose condition is constant.
    Returns their names."""
    done = []
    while True:
        for index, node in enumerate(model.graph.node):
            condition = node.op_type == "If" and models.evaluate(
                model, node.input[0]
            )
            if isinstance(condition, np.ndarray):
                done.append(node.name or node.output[0])
                inline_if(model, index, bool(condition.all()))
                break
        else:
            return done


def inline_if(model, index, condition):
    node = model.graph.node[index]
    wanted = "then_branch" if condition else "else_branch"
    branch = next(a.g for a in node.attribute if a.name == wanted)
    prefix = unused_name(model, f"{node.name or node.output[0]}/")
    for name in [t.name for t in branch.initializer] + [
        name for inner in branch.node for name in inner.output if name
    ]:
        rename_tensor(branch, name, prefix + name)
        for value in [*branch.initializer, *branch.output]:
            if value.name == name:
                value.name = prefix + name
    nodes = list(branch.node) + [
        helper.make_node("Identity", [value.name], [name])
        for value, name in zip(branch.output, node.output)
    ]
    model.graph.initializer.extend(branch.initializer)
    before, after = model.graph.node[:index], model.graph.node[index + 1 :]
    replace_nodes(model, [*before, *nodes, *after])


def replace_nodes(model, nodes):
    kept = [type(node).FromString(node.SerializeToString()) for node in nodes]
    model.graph.ClearField("node")
    model.graph.node.extend(kept)


def insert_after_input(model, name, op, operands=(), **attributes):
    """Everything that read the input reads op(input, operands...)."""
    inner = unused_name(model, f"{name}_{op.lower()}")
    rename_tensor(model.graph, name, inner)
    node = helper.make_node(
        op, [name, *operands], [inner], name=f"{inner}_node", **attributes
    )
    model.graph.node.insert(0, node)
    return node


def insert_before_output(model, name, op, operands=(), **attributes):
    """The output becomes op(what it was, operands...)."""
    inner = unused_name(model, f"{name}_{op.lower()}")
    rename_tensor(model.graph, name, inner)
    node = helper.make_node(
        op, [inner, *operands], [name], name=f"{inner}_node", **attributes
    )
    model.graph.node.append(node)
    return node


def offset_state(model, output, input_, initial):
    """Lets the state start from zeros where it started from `initial`."""
    constant = add_constant(model, f"{input_}_initial", initial)
    insert_after_input(model, input_, "Add", [constant])
    insert_before_output(model, output, "Sub", [constant])


def front_to(axis, rank):
    """The permutation that moves dimension 0 to an axis."""
    return [*range(1, axis + 1), 0, *range(axis + 1, rank)]


def to_front(axis, rank):
    return [axis, *(i for i in range(rank) if i != axis)]


def move_input_batch(model, name, axis, rank):
    return insert_after_input(
        model, name, "Transpose", perm=front_to(axis, rank)
    )


def move_output_batch(model, name, axis, rank):
    return insert_before_output(
        model, name, "Transpose", perm=to_front(axis, rank)
    )


def permutation(node):
    return list(helper.get_node_attr_value(node, "perm"))


def set_attribute(node, name, value):
    remove(node.attribute, lambda attribute: attribute.name == name)
    node.attribute.append(helper.make_attribute(name, value))


def find_axes(model, node):
    """The constant axes of a Squeeze or Unsqueeze, none if there are none."""
    for attribute in node.attribute:
        if attribute.name == "axes":
            return list(attribute.ints)
    if len(node.input) < 2 or not node.input[1]:
        return []
    axes = models.evaluate(model, node.input[1])
    return [] if axes is None else axes.ravel().tolist()


def set_axes(model, node, axes):
    if models.opset(model) < 13:
        set_attribute(node, "axes", axes)
        return
    name = add_constant(model, f"{node.name}_axes", np.array(axes, np.int64))
    del node.input[1:]
    node.input.append(name)


def fold_input_transpose(model, transpose):
    """Lets the readers of a transposed input read the input itself, where
    they only reorder or drop dimensions. Returns whether all could."""
    inner, perm = transpose.output[0], permutation(transpose)
    readers = [n for n in model.graph.node if inner in models.names_used(n)]
    if any(value.name == inner for value in model.graph.output):
        return False
    changes = [absorbed_by_reader(model, node, perm) for node in readers]
    if not readers or None in changes:
        return False
    for node, change in zip(readers, changes):
        change()
        node.input[0] = transpose.input[0]
    model.graph.node.remove(transpose)
    return True


def absorbed_by_reader(model, node, perm):
    """What makes `node` read its input before `perm`; None if nothing does."""
    rank = len(perm)
    if node.op_type == "Transpose":
        order = [perm[i] for i in permutation(node)]
        return lambda: set_permutation(node, order)
    if node.op_type == "Squeeze":
        dropped = [axis % rank for axis in find_axes(model, node)]
        if dropped and keeps_order(perm, dropped):
            axes = sorted(perm[axis] for axis in dropped)
            return lambda: set_axes(model, node, axes)
    if node.op_type == "Gather" and gathers_one(model, node):
        axis = attribute_or(node, "axis", 0) % rank
        if keeps_order(perm, [axis]):
            return lambda: set_attribute(node, "axis", perm[axis])
    return None


def fold_output_transpose(model, transpose):
    """The same for what an output is transposed from."""
    inner, perm = transpose.input[0], permutation(transpose)
    readers = [n for n in model.graph.node if inner in models.names_used(n)]
    producer = next(n for n in model.graph.node if inner in n.output)
    if len(readers) > 1 or not absorb_in_producer(model, producer, perm):
        return False
    producer.output[0] = transpose.output[0]
    model.graph.node.remove(transpose)
    return True


def absorb_in_producer(model, node, perm):
    rank = len(perm)
    if node.op_type == "Transpose":
        inner = permutation(node)
        set_permutation(node, [inner[i] for i in perm])
        return True
    if node.op_type == "Unsqueeze":
        added = [axis % rank for axis in find_axes(model, node)]
        kept = [axis for axis in perm if axis not in added]
        if added and kept == sorted(kept):
            set_axes(model, node, sorted(perm.index(axis) for axis in added))
            return True
    return False


def keeps_order(perm, dropped):
    kept = [perm[i] for i in range(len(perm)) if i not in dropped]
    return kept == sorted(kept)


def set_permutation(node, order):
    if order == sorted(order):
        node.op_type = "Identity"
        node.ClearField("attribute")
    else:
        set_attribute(node, "perm", order)


def gathers_one(model, node):
    indices = models.evaluate(model, node.input[1])
    return indices is not None and indices.ndim == 0


def attribute_or(node, name, default):
    return next(
        (
            helper.get_attribute_value(attribute)
            for attribute in node.attribute
            if attribute.name == name
        ),
        default,
    )

"""Documentation of the action of this name: ansible-doc -t module kxadmin."""

DOCUMENTATION = r'''
module: kxadmin
short_description: Run kxadmin-strict on the control node
description:
  - Runs commands on the control node, one after the other, with a password on standard input.
  - All are run, but for those behind one that has not reached its server.
  - It fails when one of them does not end with 0.
options:
  commands:
    description: The commands, each a list of words that begins with the program.
    type: list
    elements: list
    required: true
  environment:
    description: Variables that the commands get besides those of the control node.
    type: dict
    default: {}
  password:
    description: What C(--password-file -) reads. It is shown nowhere and written to no file.
    type: str
    default: ''
  time_limit:
    description: Seconds for each command.
    type: int
author:
  - the kxadmin authors
'''

EXAMPLES = r'''
- name: Ask for the statistics
  kxadmin:
    commands:
      - [kxadmin-strict, --tries, 1, stat, "{{ inventory_hostname }}"]
    time_limit: 10
'''

RETURN = r'''
msg:
  description: Why commands failed, in one line.
  type: str
  returned: failure
stdout_lines:
  description: What all of them printed.
  type: list
  elements: str
  returned: success
'''

include $(BR2_EXTERNAL_KELCONF_PATH)/kelconf/kelconf.mk
